// The dnsAcl rules: which queries they take and how those are looked up.
//
// Life: filled while the configuration is read, completed by resolve_references
// and close_rings; afterwards the DNS thread's, which moves the rings and
// builds the requests.
#pragma once

#include <regex.h>

#include <cstdint>
#include <span>
#include <string_view>

#include "config/key_table.h"
#include "httpmod/cipher.h"
#include "main/buffer.h"
#include "main/list.h"
#include "tcp/module.h"

namespace vrox::httpmod {
struct HttpModModule;
}

namespace vrox::dns {

// A request as it was built from a rule's template and its module.
struct RequestTemplate {
  Buffer text;
  std::uint32_t revision = 0;  // of the module
};

struct DnsCondition {
  DnsCondition* next = nullptr;
  std::uint16_t query_type = 0;      // 0: the pattern decides
  const regex_t* pattern = nullptr;  // over the query name in dotted text
};

struct DnsRule {
  DnsRule* next = nullptr;
  List<DnsCondition> conditions;  // newest first
  List<tcp::Destination> destination_list;
  Ring<tcp::Destination> destinations;  // closed from the list
  List<tcp::Module> socks5_list;        // `socks5_set_dst`, newest first
  Ring<tcp::Module> socks5_modules;     // closed from the list; empty: no SOCKS5 upstream
  std::string_view http_mod_name;
  std::string_view tunnel_http_mod_name;
  // Resolved after the file is read; the DNS loop puts its own copies in their place.
  httpmod::HttpModModule* http_mod = nullptr;
  httpmod::HttpModModule* tunnel_http_mod = nullptr;
  std::string_view lookup_template;  // `http_header`; empty: the built-in one
  std::string_view tunnel_template;  // `tunnel_proxy_header`; empty: the built-in one
  std::string_view header_host;
  RequestTemplate lookup;          // the DNS loop's, from `lookup_template`
  RequestTemplate tunnel_request;  // likewise, from `tunnel_template`
  httpmod::TunnelKey tunnel_key;
  bool fast_open = false;  // `tcp_option` TFO
  bool tcp_dns = false;    // `lookup_mode` tcpDNS
  bool tunnel = false;     // through an HTTP proxy by CONNECT
};

extern List<DnsRule> rules;  // in file order

// Applies one key of a dnsAcl section. The view of `value` may be kept.
[[nodiscard]] config::KeyResult apply_dns_rule_key(std::string_view key, std::string_view value,
                                                   DnsRule& rule);
[[nodiscard]] std::span<const std::string_view> dns_rule_keywords();  // in table order

}  // namespace vrox::dns
