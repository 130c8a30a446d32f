// Any module applied to any request. Input: lines "key=value" up to an empty
// one, with escape sequences as in the configuration, then the request.
#include "httpmod/modify.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>

#include "config/syntax.h"
#include "httpmod/limit.h"
#include "httpmod/request.h"

namespace {

using namespace vrox::httpmod;

constexpr std::size_t max_input = 4096;

// How long a configured expression takes is the configuration's own affair, and
// not what is looked for: only simple ones, on a head that nothing has lengthened
// yet (the address sanitizer measures all the rest of it for every search).
bool is_cheap(const HttpModDirective& directive, const HttpModModule& module) {
  if (directive.kind != HttpModKind::regrep) return true;
  const std::string_view pattern = directive.pattern;
  return &directive == module.directives.head && pattern.size() <= 32 &&
         pattern.find_first_of("{\\") == std::string_view::npos &&
         pattern.find("++") == std::string_view::npos &&
         std::count(pattern.begin(), pattern.end(), '(') <= 2;
}

void apply_line(std::span<char> line, HttpModModule& module) {
  const std::string_view text(line.data(), line.size());
  const std::size_t equals = text.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view value = vrox::config::unescape(line.subspan(equals + 1));
  if (!apply_directive(text.substr(0, equals), value, module)) return;
  HttpModDirective* added = module.directives.tail;
  if (added != nullptr && !is_cheap(*added, module)) added->kind = HttpModKind::strrep;
}

void free_lists(HttpModModule& module) {
  for (auto* at = module.directives.head; at != nullptr;) delete std::exchange(at, at->next);
  for (auto* at = module.saved_values.head; at != nullptr;) delete std::exchange(at, at->next);
}

void rewrite(std::string_view text, HttpModModule& module, TunnelKey key, const char* address) {
  const auto destination = vrox::parse_address(address, 80);
  vrox::Buffer request;
  if (!destination || !request.assign(text)) std::abort();
  const RequestView view{request, method_code(text), *destination, 7, 8080};
  if (modify_request(view, module, key)) {
    if (request.size() > text.size() + max_growth) std::abort();
  } else if (request.view() != text) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > max_input) return 0;
  const std::string input(data, data + size);
  const std::size_t empty_line = std::min(input.find("\n\n"), input.size());
  std::string lines = input.substr(0, empty_line);
  const std::string_view text = std::string_view(input).substr(std::min(empty_line + 2, size));

  HttpModModule module;
  for (std::size_t at = 0; at < lines.size();) {
    const std::size_t end = std::min(lines.find('\n', at), lines.size());
    apply_line(std::span(lines).subspan(at, end - at), module);
    at = end + 1;
  }
  rewrite(text, module, {}, "10.0.0.1");
  rewrite(text, module, {0x5a, 0x93}, "2001:db8::1");

  HeadScan scan;
  for (std::size_t length = 0; length <= text.size(); ++length) {
    if (request_complete(text.substr(0, length), scan)) break;
  }
  if (const auto target = parse_target(text)) {
    if (target->head_end > text.size() || target->uri.empty()) std::abort();
  }
  free_lists(module);
  return 0;
}
