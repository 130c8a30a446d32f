#include "config/watcher.h"

#include <cstdio>

#include "config/effects.h"
#include "config/syntax.h"

namespace vrox::config {

constinit Effects effects;

namespace {

// tcp::Global has no name, which prints as a null text does.
void cannot_find(const char* what, std::optional<std::string_view> name) {
  const bool unnamed = !name || name->data() == nullptr;
  const std::string_view shown = unnamed ? "(null)" : *name;
  (void)std::fprintf(stderr, "Can't find %s [%.*s]\n", what, static_cast<int>(shown.size()),
                     shown.data());
}

}  // namespace

bool Complainer::on_problem(const Problem& problem) {
  switch (problem.fault) {
    case Fault::bad_header:
      (void)std::fputs("configuration file format error\n", stderr);
      break;
    case Fault::no_equals:
    case Fault::no_value:
    case Fault::not_taken:
      line_error(problem.key, problem.value);
    case Fault::included_rule:
      cannot_find("include module name at", problem.key);
      break;
    case Fault::rematch_rule:
      cannot_find("reMatch module name at", problem.key);
      break;
    case Fault::module:
      cannot_find("tcp proxy module:", problem.value);
      break;
    case Fault::http_mod:
      cannot_find("http modify module:", problem.value);
      break;
    case Fault::tunnel_http_mod:
      cannot_find("http tunnel modify module:", problem.value);
      break;
    case Fault::brace_attached:
    case Fault::not_closed:
    case Fault::failed:
    case Fault::service_http_mod:
    case Fault::tunnel_request:
      break;
  }
  return false;
}

}  // namespace vrox::config
