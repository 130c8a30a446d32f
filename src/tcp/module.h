// The tcpProxy modules: ways of reaching a destination. The upstreams of DNS
// rules and of httpUDP use the same records for their destinations and for
// SOCKS5 proxies.
//
// Life: filled while the configuration is read; the use counts and the heads of
// the rings belong to the one loop that dials through the record.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "config/key_table.h"
#include "httpmod/cipher.h"
#include "main/address.h"
#include "main/buffer.h"
#include "main/list.h"

namespace vrox::httpmod {
struct HttpModModule;
}

namespace vrox::tcp {

// One address of a `destAddr` key.
struct Destination {
  Destination* next = nullptr;
  SocketAddress address;  // AF_INET6, IPv4 as IPv4-mapped
  std::int32_t use_count = 0;
  bool original_dst = false;  // connect to where the client wanted to go
  bool deny_network = false;  // refuse the connection
};

struct Module {
  Module* next = nullptr;
  std::string_view name;
  List<Destination> destination_list;
  Ring<Destination> destinations;                     // closed from the list
  httpmod::HttpModModule* http_mod = nullptr;         // for ordinary requests
  httpmod::HttpModModule* tunnel_http_mod = nullptr;  // for CONNECT and tunnel requests
  std::string_view http_mod_name;
  std::string_view tunnel_http_mod_name;
  Buffer tunnel_request;  // the CONNECT template
  Buffer socks5_auth;     // RFC 1929 message; empty: none
  std::int32_t use_count = 0;
  httpmod::TunnelKey tunnel_key;
  bool tunnel_proxy = false;
  bool socks5_client = false;
  bool fast_open = false;             // `tcp_option` TFO
  bool http_over_tunnel = false;      // `tunnel_proxy` = httpOverTunnel
  bool wants_tunnel_request = false;  // it is built when the file has been read
};

extern List<Module> modules;  // newest first

// The request that opens a tunnel through an HTTP proxy; "[H]" becomes the host.
constexpr std::string_view connect_template =
    "CONNECT [H] HTTP/1.1\r\nHost: [H]\r\nUser-Agent: Pelorin Linux Network, (%>w<%)\r\n\r\n";

// Adds the destinations of one `destAddr`, `destAddr4` or `destAddr6` key.
// Blocks while names are resolved.
[[nodiscard]] bool add_destinations(std::string_view key, std::string_view value,
                                    List<Destination>& list);

// "user password" as the RFC 1929 message that a client sends. False when the
// value has no blank or a part is longer than the message can say.
[[nodiscard]] bool parse_user_pass(std::string_view value, Buffer& message);

// Applies one key of a tcpProxy section. The view of `value` may be kept.
[[nodiscard]] config::KeyResult apply_module_key(std::string_view key, std::string_view value,
                                                 Module& module);
[[nodiscard]] std::span<const std::string_view> module_keywords();  // in table order

// Builds the module's tunnel request from connect_template and its
// tunnel_http_mod. False when that fails; want of memory is reported.
[[nodiscard]] bool prepare_tunnel_request(Module& module);

// An upstream SOCKS5 proxy: `value` is a destination, optionally followed by a
// blank and credentials. Null when it is not.
[[nodiscard]] Module* new_socks5_upstream(std::string_view value);

}  // namespace vrox::tcp
