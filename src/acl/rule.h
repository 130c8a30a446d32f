// The rules: conditions on a connection, and how a connection that meets them
// is treated.
//
// Life: filled while the configuration is read, then read-only, except what is
// marked below. tcp::Global carries the same record: its fields are the defaults
// of the rules that open behind them, and it is the rule of what no other matches.
#pragma once

#include <regex.h>

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>

#include "acl/clients.h"
#include "config/key_table.h"
#include "main/address.h"
#include "main/list.h"

namespace vrox::tcp {
struct Module;
}

namespace vrox::acl {

struct Rule;

enum class ConditionKind : std::uint8_t {
  reg_string = 0,
  uri = 1,
  url = 2,
  method = 3,
  hdr_key = 4,
  dst_ip = 5,
  src_ip = 6,
  dst_port = 7,
  include_module = 8,
};

struct Condition {
  Condition* next = nullptr;
  ConditionKind kind = ConditionKind::reg_string;
  bool negated = false;
  bool must_hold = false;  // `continue_match:`: the rule fails here, or goes on
  std::uint8_t prefix = 128;
  std::uint16_t port_low = 0;  // both included
  std::uint16_t port_high = 0;
  std::uint32_t methods = 0;         // mask of method codes
  Address address{};                 // bits behind the prefix cleared
  const regex_t* pattern = nullptr;  // shared by the copies that rules inherit
  std::string_view header_name;      // hdr_key
  std::string_view rule_name;        // include_module
  const Rule* included = nullptr;    // what it was resolved to
};

// A `tcpProxy` key: one element of a rule's ring of modules.
struct ModuleRef {
  ModuleRef* next = nullptr;
  std::string_view name;
  tcp::Module* module = nullptr;  // resolved after the file is read
};

// One name of `reMatch`.
struct RuleRef {
  RuleRef* next = nullptr;
  Rule* rule = nullptr;
};

// A count shared by all worker processes, in a mapping of its own.
using SharedCell = std::atomic<std::uint64_t>;
static_assert(SharedCell::is_always_lock_free);

struct Rule {
  SharedCell* speed_limit = nullptr;  // `maxSpeed`: bytes allowed per second
  SharedCell* speed_used = nullptr;   // bytes written in the current second
  SharedCell* data_left = nullptr;    // `maxData`: bytes still allowed
  List<Condition> conditions;         // in the order of the keys
  Rule* next = nullptr;               // in the list that holds this rule
  List<ModuleRef> module_refs;        // the rule's own, or a copy of tcp::Global's
  Ring<ModuleRef> modules;            // closed from module_refs; moved by the TCP loop
  ClientTable clients;                // under `limit_client_ip`; the TCP loop's
  List<RuleRef> rematch;
  std::string_view rematch_names;  // `reMatch` as written
  std::string_view name;
  std::int32_t timeout = 0;      // in passes of the sweeper; below 1 never
  std::int32_t keep_alive = 0;   // `keepAlive_s`
  std::int32_t max_clients = 0;  // the two numbers of `limit_client_ip`; 0: no limit
  std::int32_t max_sessions_per_client = 0;
  bool no_auto_match = false;
  bool first_match = false;       // in the connection-time list
  bool inherits_modules = false;  // module_refs were copied; the first own `tcpProxy` drops them
  bool asks_host = false;  // looks at the Host header, itself or by a rule it includes; resolved
};

// The two lists, in file order, and the rule of what they do not match.
struct RuleLists {
  List<Rule> at_connect;
  List<Rule> on_request;
  Rule* fallback = nullptr;  // tcp::Global
};
extern RuleLists rule_lists;

// A fresh mapping shared with the worker processes that will be forked. Null,
// reported as "mmap()", when the kernel refuses.
[[nodiscard]] SharedCell* new_shared_cell(std::uint64_t value);

// A rule that begins as tcp::Global stands now, with counters of its own. Null
// when memory is short, which is reported.
[[nodiscard]] Rule* new_rule(const Rule& defaults, std::string_view name);

// Applies one key of a rule. The views of `key` and `value` are kept.
[[nodiscard]] config::KeyResult apply_rule_key(std::string_view key, std::string_view value,
                                               Rule& rule);

// What it knows, in table order. `rule_continue_match` stands before the keyword of
// a condition.
[[nodiscard]] std::span<const std::string_view> rule_keywords();
[[nodiscard]] std::span<const std::string_view> condition_keywords();
constexpr std::string_view rule_continue_match = "continue_match:";

// An address of `src_ip` or `dst_ip`, read as far as it makes sense: up to four
// decimal parts for IPv4, groups of hexadecimal digits with a "::" for IPv6.
[[nodiscard]] Address parse_rule_address(std::string_view text);

}  // namespace vrox::acl
