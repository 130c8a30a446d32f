#include "config/reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <utility>

#include "acl/rule.h"
#include "config/blocks.h"
#include "config/keys.h"
#include "config/resolve.h"
#include "config/syntax.h"
#include "dns/rule.h"
#include "httpmod/module.h"
#include "main/helpers.h"
#include "tcp/global.h"
#include "tcp/module.h"

namespace vrox::config {

// Kept for as long as the process: settings are views of it. Visible outside, or
// compilers drop what nobody here reads, and leak checkers miss it.
extern constinit Buffer* configuration_text;
constinit Buffer* configuration_text = nullptr;

namespace {

// The record that the section's lines are applied to; one of them is set in
// sections that make a record of their own.
struct Target {
  acl::Rule* rule = nullptr;
  tcp::Module* module = nullptr;
  httpmod::HttpModModule* http_mod = nullptr;
  dns::DnsRule* dns_rule = nullptr;
};

// What a kind of section does with its record. `begin` and `end` may be null.
struct SectionRow {
  SectionKind kind;
  bool escapes;  // escape sequences in values are replaced
  bool (*begin)(std::string_view name, Target& target);
  KeyResult (*apply)(std::string_view key, std::string_view value, Target& target);
  void (*end)(Target& target);
};

std::string_view keep_name(std::string_view name) {
  char* copy = new char[name.size() + 1];
  *std::copy(name.begin(), name.end(), copy) = '\0';
  return {copy, name.size()};
}

// The single records.
template <KeyResult (*Apply)(std::string_view, std::string_view)>
KeyResult apply_single(std::string_view key, std::string_view value, Target&) {
  return Apply(key, value);
}

bool begin_rule(std::string_view name, Target& target) {
  target.rule = acl::new_rule(tcp::global, keep_name(name));
  return target.rule != nullptr;
}

KeyResult apply_rule(std::string_view key, std::string_view value, Target& target) {
  return acl::apply_rule_key(key, value, *target.rule);
}

void end_rule(Target& target) {
  if (!target.rule->first_match) acl::rule_lists.on_request.push_back(target.rule);
}

bool begin_module(std::string_view name, Target& target) {
  target.module = new tcp::Module;
  target.module->name = keep_name(name);
  return true;
}

KeyResult apply_module(std::string_view key, std::string_view value, Target& target) {
  return tcp::apply_module_key(key, value, *target.module);
}

void end_module(Target& target) { tcp::modules.push_front(target.module); }

bool begin_http_mod(std::string_view name, Target& target) {
  target.http_mod = &httpmod::new_module(keep_name(name));
  return true;
}

KeyResult apply_http_mod(std::string_view key, std::string_view value, Target& target) {
  return known_if(httpmod::apply_directive(key, value, *target.http_mod));
}

bool begin_dns_rule(std::string_view, Target& target) {
  target.dns_rule = new dns::DnsRule;
  return true;
}

KeyResult apply_dns_rule(std::string_view key, std::string_view value, Target& target) {
  return dns::apply_dns_rule_key(key, value, *target.dns_rule);
}

void end_dns_rule(Target& target) { dns::rules.push_back(target.dns_rule); }

using Kind = SectionKind;
constexpr std::array<SectionRow, section_kinds> sections{{
    {Kind::tcp_global, false, nullptr, apply_single<apply_tcp_global_key>, nullptr},
    {Kind::tcp_acl, false, begin_rule, apply_rule, end_rule},
    {Kind::tcp_proxy, false, begin_module, apply_module, end_module},
    {Kind::http_mod, true, begin_http_mod, apply_http_mod, nullptr},
    {Kind::http_udp, true, nullptr, apply_single<apply_http_udp_key>, nullptr},
    {Kind::dns_global, false, nullptr, apply_single<apply_dns_global_key>, nullptr},
    {Kind::dns_acl, true, begin_dns_rule, apply_dns_rule, end_dns_rule},
    {Kind::socks5, false, nullptr, apply_single<apply_socks5_key>, nullptr},
    {Kind::tun, false, nullptr, apply_single<apply_tun_key>, nullptr},
}};

// Indexed by kind.
consteval bool in_order() {
  for (std::size_t i = 0; i < sections.size(); ++i) {
    if (static_cast<std::size_t>(sections[i].kind) != i) return false;
  }
  return true;
}
static_assert(in_order());

Fault fault_of(KeyResult result) {
  return result == KeyResult::unknown ? Fault::not_taken : Fault::failed;
}

// False, here and below, when the load has failed.
bool apply_line(const SectionRow& row, const Line& line, Target& target, Watcher& watcher) {
  watcher.on_line(line);
  const std::string_view value =
      row.escapes ? unescape(line.value) : std::string_view(line.value.data(), line.value.size());
  const KeyResult result = row.apply(line.key, value, target);
  return result == KeyResult::applied ||
         watcher.on_problem({.fault = fault_of(result), .key = line.key, .value = value});
}

bool apply_lines(BlockReader& reader, const SectionRow& row, Target& target, Watcher& watcher) {
  for (;;) {
    Line line;
    switch (reader.next_line(line)) {
      case BlockReader::LineFound::pair:
        if (!apply_line(row, line, target, watcher)) return false;
        break;
      case BlockReader::LineFound::end_of_body:
        return true;
      case BlockReader::LineFound::not_closed:
        return watcher.on_problem({.fault = Fault::not_closed, .key = {}, .value = {}});
      case BlockReader::LineFound::no_equals:
        if (!watcher.on_problem({Fault::no_equals, line.key, std::nullopt})) return false;
        break;
      case BlockReader::LineFound::no_value:
        if (!watcher.on_problem({Fault::no_value, line.key, std::nullopt})) return false;
        break;
    }
  }
}

bool read_section(BlockReader& reader, const Section& section, Watcher& watcher) {
  watcher.on_section(section);
  const SectionRow& row = sections[static_cast<std::size_t>(section.kind)];
  Target target;
  if (row.begin != nullptr && !row.begin(section.name, target)) return false;
  const bool applied = apply_lines(reader, row, target, watcher);
  if (row.end != nullptr) row.end(target);  // in any case: records are kept for ever
  return applied;
}

}  // namespace

bool read_configuration_text(std::span<char> text, Watcher& watcher) {
  BlockReader reader(text);
  for (;;) {
    Section section;
    switch (reader.next_section(section)) {
      case BlockReader::Found::section:
        if (!read_section(reader, section, watcher)) return false;
        break;
      case BlockReader::Found::bad_header:
        if (!watcher.on_problem({Fault::bad_header, section.header, std::nullopt})) return false;
        break;
      case BlockReader::Found::brace_attached:
        (void)watcher.on_problem({Fault::brace_attached, section.header, std::nullopt});
        return resolve_references(watcher);
      case BlockReader::Found::end:
        return resolve_references(watcher);
    }
  }
}

bool read_configuration_text(std::span<char> text) {
  Complainer complainer;
  return read_configuration_text(text, complainer);
}

bool read_configuration(const char* path) {
  std::optional<Buffer> text = read_whole_file(path);
  if (!text) return false;
  configuration_text = new Buffer(std::move(*text));
  return read_configuration_text(configuration_text->span());
}

}  // namespace vrox::config
