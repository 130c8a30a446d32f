#include "dns/rule.h"

#include <array>

#include "config/pattern.h"
#include "config/syntax.h"
#include "dns/types.h"
#include "main/helpers.h"

namespace vrox::dns {

constinit List<DnsRule> rules;

namespace {

using config::KeyResult;
using config::known_if;

KeyResult add_destination(std::string_view key, std::string_view value, DnsRule& rule) {
  return known_if(tcp::add_destinations(key, value, rule.destination_list));
}

KeyResult add_socks5_upstream(std::string_view, std::string_view value, DnsRule& rule) {
  tcp::Module* upstream = tcp::new_socks5_upstream(value);
  if (upstream == nullptr) return KeyResult::unknown;
  rule.socks5_list.push_front(upstream);
  return KeyResult::applied;
}

KeyResult set_tcp_option(std::string_view, std::string_view value, DnsRule& rule) {
  if (config::has_option(value, "TFO")) rule.fast_open = true;
  return KeyResult::applied;
}

KeyResult set_tunnel_template(std::string_view, std::string_view value, DnsRule& rule) {
  rule.tunnel_template = value;
  rule.tunnel = true;
  return KeyResult::applied;
}

KeyResult set_tunnel_proxy(std::string_view, std::string_view value, DnsRule& rule) {
  if (equals_ignoring_case(value, "on")) rule.tunnel = true;
  return KeyResult::applied;
}

KeyResult set_lookup_mode(std::string_view, std::string_view value, DnsRule& rule) {
  if (equals_ignoring_case(value, "tcpDNS")) rule.tcp_dns = true;
  return KeyResult::applied;
}

KeyResult set_tunnel_http_mod(std::string_view, std::string_view value, DnsRule& rule) {
  rule.tunnel_http_mod_name = value;
  rule.tunnel = true;
  return KeyResult::applied;
}

template <auto Field>
KeyResult set_text(std::string_view, std::string_view value, DnsRule& rule) {
  rule.*Field = value;
  return KeyResult::applied;
}

KeyResult set_tunnel_key(std::string_view, std::string_view value, DnsRule& rule) {
  rule.tunnel_key = httpmod::derive_tunnel_key(value);
  return KeyResult::applied;
}

KeyResult add_query_type(std::string_view, std::string_view value, DnsRule& rule) {
  const std::uint16_t type = dns_type_from_name(value);
  if (type == 0) return KeyResult::unknown;
  auto* condition = new DnsCondition;
  condition->query_type = type;
  rule.conditions.push_front(condition);
  return KeyResult::applied;
}

KeyResult add_domain_pattern(std::string_view, std::string_view value, DnsRule& rule) {
  const regex_t* pattern = config::compile_pattern(value);
  if (pattern == nullptr) return KeyResult::unknown;
  auto* condition = new DnsCondition;
  condition->pattern = pattern;
  rule.conditions.push_front(condition);
  return KeyResult::applied;
}

constexpr std::array rule_keys{
    config::Key<DnsRule>{"destAddr", add_destination},
    config::Key<DnsRule>{"socks5_set_dst", add_socks5_upstream},
    config::Key<DnsRule>{"tcp_option", set_tcp_option},
    config::Key<DnsRule>{"tunnel_proxy_header", set_tunnel_template},
    config::Key<DnsRule>{"tunnel_proxy", set_tunnel_proxy},
    config::Key<DnsRule>{"http_header", set_text<&DnsRule::lookup_template>},
    config::Key<DnsRule>{"lookup_mode", set_lookup_mode},
    config::Key<DnsRule>{"header_host", set_text<&DnsRule::header_host>},
    config::Key<DnsRule>{"tunnelHttpMod", set_tunnel_http_mod},
    config::Key<DnsRule>{"httpMod", set_text<&DnsRule::http_mod_name>},
    config::Key<DnsRule>{"tunnel_encrypt", set_tunnel_key},
    config::Key<DnsRule>{"query_type", add_query_type},
    config::Key<DnsRule>{"reg_domain", add_domain_pattern},
};
static_assert(config::all_reachable(rule_keys));

}  // namespace

KeyResult apply_dns_rule_key(std::string_view key, std::string_view value, DnsRule& rule) {
  return config::apply_key(rule_keys, key, value, rule);
}

std::span<const std::string_view> dns_rule_keywords() { return config::keywords_of<rule_keys>(); }

}  // namespace vrox::dns
