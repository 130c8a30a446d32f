// The keys of tcpAcl sections and, behind its own, of tcp::Global. A key that
// ends in "!" negates its condition; the mark is gone before the key is looked up.
#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>
#include <vector>

#include "acl/resolve.h"
#include "acl/rule.h"
#include "config/pattern.h"
#include "config/syntax.h"
#include "dns/message.h"
#include "httpmod/request.h"
#include "main/helpers.h"
#include "main/timeouts.h"
#include "tcp/global.h"

namespace vrox::acl {

using config::KeyResult;

namespace {

constexpr int full_prefix = 128;

// Conditions -----------------------------------------------------------------

struct ConditionKey {
  std::string_view keyword;
  // Adds the key's conditions to the rule, each begun as a copy of `base`.
  KeyResult (*add)(std::string_view key, std::string_view value, const Condition& base, Rule& rule);
};

void append(Rule& rule, const Condition& condition) {
  rule.conditions.push_back(new Condition(condition));
}

Condition of_kind(const Condition& base, ConditionKind kind) {
  Condition condition = base;
  condition.kind = kind;
  return condition;
}

KeyResult append_pattern(Condition condition, std::string_view expression, Rule& rule) {
  condition.pattern = config::compile_pattern(expression);
  if (condition.pattern == nullptr) return KeyResult::unknown;
  append(rule, condition);
  return KeyResult::applied;
}

KeyResult add_header(std::string_view key, std::string_view value, const Condition& base,
                     Rule& rule) {
  const std::size_t open = key.find('(');
  const std::size_t close = key.find(')');
  if (close == std::string_view::npos) return KeyResult::unknown;
  Condition condition = of_kind(base, ConditionKind::hdr_key);
  condition.header_name = key.substr(open + 1, close - open - 1);
  return append_pattern(condition, value, rule);
}

// A word that names no method stands for data that is not HTTP, which has a
// code of its own.
KeyResult add_methods(std::string_view, std::string_view value, const Condition& base, Rule& rule) {
  Condition condition = of_kind(base, ConditionKind::method);
  config::for_each_token(value, '|', [&](std::string_view token) {
    condition.methods |= httpmod::method_code(skip_whitespace(token));
  });
  append(rule, condition);
  return KeyResult::applied;
}

// The only key of a rule whose value knows escape sequences.
KeyResult add_reg_string(std::string_view, std::string_view value, const Condition& base,
                         Rule& rule) {
  std::vector<char> text(value.begin(), value.end());
  return append_pattern(of_kind(base, ConditionKind::reg_string), config::unescape(text), rule);
}

// `uri` by its third letter; all else that begins with "ur" is `url`.
KeyResult add_url(std::string_view key, std::string_view value, const Condition& base, Rule& rule) {
  const bool is_uri = key.size() > 2 && config::lower(key[2]) == 'i';
  return append_pattern(of_kind(base, is_uri ? ConditionKind::uri : ConditionKind::url), value,
                        rule);
}

struct AddressText {
  std::string_view address;
  std::uint8_t prefix = full_prefix;
};

AddressText split_prefix(std::string_view value) {
  const std::size_t slash = value.find('/');
  if (slash == std::string_view::npos) return {.address = value};
  const int prefix = std::clamp(to_number(value.substr(slash + 1)), 0, full_prefix);
  return {.address = value.substr(0, slash), .prefix = static_cast<std::uint8_t>(prefix)};
}

void append_address(const Condition& base, ConditionKind kind, const Address& address,
                    std::uint8_t prefix, Rule& rule) {
  Condition condition = of_kind(base, kind);
  condition.prefix = prefix;
  condition.address = masked(address, prefix);
  append(rule, condition);
}

template <ConditionKind Kind>
KeyResult add_address(std::string_view, std::string_view value, const Condition& base, Rule& rule) {
  const AddressText text = split_prefix(value);
  append_address(base, Kind, parse_rule_address(text.address), text.prefix, rule);
  return KeyResult::applied;
}

// A resolved IPv4 address lies in the first four bytes, as in the uniform form.
template <ConditionKind Kind>
KeyResult add_domain(std::string_view, std::string_view value, const Condition& base, Rule& rule) {
  const AddressText text = split_prefix(value);
  for (const std::uint16_t type : {dns::type_aaaa, dns::type_a}) {
    std::vector<dns::ResolvedAddress> found;
    if (resolve_at_load(found, text.address, type) < 0) return KeyResult::unknown;
    std::for_each(found.rbegin(), found.rend(), [&](const dns::ResolvedAddress& address) {
      append_address(base, Kind, address.bytes, text.prefix, rule);
    });
  }
  return KeyResult::applied;
}

KeyResult add_port(std::string_view, std::string_view value, const Condition& base, Rule& rule) {
  const std::size_t colon = value.find(':');
  const std::string_view high = colon == std::string_view::npos ? value : value.substr(colon + 1);
  Condition condition = of_kind(base, ConditionKind::dst_port);
  condition.port_low = static_cast<std::uint16_t>(to_number(value));
  condition.port_high = static_cast<std::uint16_t>(to_number(high));
  append(rule, condition);
  return KeyResult::applied;
}

KeyResult add_include(std::string_view, std::string_view value, const Condition& base, Rule& rule) {
  Condition condition = of_kind(base, ConditionKind::include_module);
  condition.rule_name = value;
  append(rule, condition);
  return KeyResult::applied;
}

constexpr std::array condition_keys{
    ConditionKey{"src_ip_byDomain", add_domain<ConditionKind::src_ip>},
    ConditionKey{"dst_ip_byDomain", add_domain<ConditionKind::dst_ip>},
    ConditionKey{"hdr_key(", add_header},
    ConditionKey{"method", add_methods},
    ConditionKey{"reg_string", add_reg_string},
    ConditionKey{"ur", add_url},
    ConditionKey{"src_ip", add_address<ConditionKind::src_ip>},
    ConditionKey{"dst_ip", add_address<ConditionKind::dst_ip>},
    ConditionKey{"dst_port", add_port},
    ConditionKey{"include_module", add_include},
};
static_assert(config::all_reachable(condition_keys));

KeyResult add_condition(std::string_view key, std::string_view value, bool negated, Rule& rule) {
  const ConditionKey* row = config::find_key(condition_keys, key);
  if (row == nullptr) return KeyResult::unknown;
  Condition base;
  base.negated = negated;
  return row->add(key, value, base, rule);
}

// Treatment ------------------------------------------------------------------

template <auto Field>
KeyResult set_number(std::string_view, std::string_view value, Rule& rule) {
  rule.*Field = to_number(value);
  return KeyResult::applied;
}

template <auto Field>
KeyResult set_text(std::string_view, std::string_view value, Rule& rule) {
  rule.*Field = value;
  return KeyResult::applied;
}

// Other words are ignored, and tcp::Global belongs to no list.
KeyResult set_match_mode(std::string_view, std::string_view value, Rule& rule) {
  const bool listed = rule.first_match || &rule == rule_lists.fallback;
  if (equals_ignoring_case(value, "firstMatch") && !listed) {
    rule.first_match = true;
    rule_lists.at_connect.push_back(&rule);
  } else if (equals_ignoring_case(value, "no_auto_match")) {
    rule.no_auto_match = true;
  }
  return KeyResult::applied;
}

void drop_module_refs(Rule& rule) {
  for (ModuleRef* ref = rule.module_refs.head; ref != nullptr;)
    delete std::exchange(ref, ref->next);
  rule.module_refs = {};
}

// A rule that names modules of its own does not use the inherited ones.
KeyResult add_module_ref(std::string_view, std::string_view value, Rule& rule) {
  if (rule.inherits_modules) drop_module_refs(rule);
  rule.inherits_modules = false;
  auto* ref = new ModuleRef;
  ref->name = value;
  rule.module_refs.push_back(ref);
  return KeyResult::applied;
}

KeyResult set_rule_timeout(std::string_view, std::string_view value, Rule& rule) {
  set_timeout(SweepBit::tcp, to_number(value), rule.timeout);
  return KeyResult::applied;
}

KeyResult set_client_limit(std::string_view, std::string_view value, Rule& rule) {
  const std::string_view first = skip_whitespace(value);
  rule.max_clients = to_number(first);
  const std::size_t end = first.find_first_of(whitespace);
  if (end == std::string_view::npos) return KeyResult::applied;  // the second stays as it was
  rule.max_sessions_per_client = to_number(first.substr(end));
  return KeyResult::applied;
}

struct Unit {
  char letter;
  unsigned shift;
};
constexpr std::array<Unit, 2> units{{{'g', 30}, {'k', 10}}};
constexpr unsigned default_shift = 20;  // megabytes, whatever other letter stands there

std::uint64_t byte_count(std::string_view value) {
  const char letter = value.empty() ? '\0' : config::lower(value.back());
  unsigned shift = default_shift;
  for (const Unit unit : units) {
    if (unit.letter == letter) shift = unit.shift;
  }
  return static_cast<std::uint64_t>(std::int64_t{to_number(value)}) << shift;
}

KeyResult set_max_data(std::string_view, std::string_view value, Rule& rule) {
  rule.data_left = new_shared_cell(byte_count(value));
  return rule.data_left == nullptr ? KeyResult::failed : KeyResult::applied;
}

KeyResult set_max_speed(std::string_view, std::string_view value, Rule& rule) {
  rule.speed_limit = new_shared_cell(byte_count(value));
  rule.speed_used = new_shared_cell(0);
  if (tcp::global.speed_second == nullptr) tcp::global.speed_second = new_shared_cell(0);
  const bool mapped = rule.speed_limit != nullptr && rule.speed_used != nullptr &&
                      tcp::global.speed_second != nullptr;
  return mapped ? KeyResult::applied : KeyResult::failed;
}

constexpr std::array rule_keys{
    config::Key<Rule>{"matchMode", set_match_mode},
    config::Key<Rule>{"reMatch", set_text<&Rule::rematch_names>},
    config::Key<Rule>{"tcpProxy", add_module_ref},
    config::Key<Rule>{"keepAlive_s", set_number<&Rule::keep_alive>},
    config::Key<Rule>{"timeout", set_rule_timeout},
    config::Key<Rule>{"limit_client_ip", set_client_limit},
    config::Key<Rule>{"maxData", set_max_data},
    config::Key<Rule>{"maxSpeed", set_max_speed},
};
static_assert(config::all_reachable(rule_keys));

std::string_view trim_end(std::string_view text) {
  return text.substr(0, text.find_last_not_of(whitespace) + 1);
}

}  // namespace

std::span<const std::string_view> rule_keywords() { return config::keywords_of<rule_keys>(); }

std::span<const std::string_view> condition_keywords() {
  return config::keywords_of<condition_keys>();
}

KeyResult apply_rule_key(std::string_view key, std::string_view value, Rule& rule) {
  key = trim_end(key);
  const bool negated = key.ends_with('!');
  if (negated) key.remove_suffix(1);
  if (const config::Key<Rule>* row = config::find_key(rule_keys, key)) {
    return row->apply(key, value, rule);
  }
  if (!config::is_key(key, rule_continue_match)) return add_condition(key, value, negated, rule);
  const KeyResult result =
      add_condition(key.substr(rule_continue_match.size()), value, negated, rule);
  // It is the rule's first condition that gets the mark, not the new one.
  if (rule.conditions.head != nullptr) rule.conditions.head->must_hold = true;
  return result;
}

}  // namespace vrox::acl
