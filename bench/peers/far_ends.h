// The servers behind the daemon: an origin, the upstream proxies, name servers and
// the far end of UDP over HTTP. The configuration that goes with them is
// tests/system/lib/peers.py.
#pragma once

#include "peers/stream.h"

namespace peers {

enum Port : std::uint16_t {
  origin_port = 7001,
  proxy_port = 7002,         // CONNECT
  cipher_proxy_port = 7003,  // CONNECT, enciphered
  socks5_port = 7005,
  fast_open_port = 7006,  // the origin again, under other rules
  limited_port = 7007,    // likewise
  local_connect_port = 7004,
  http_port = 7080,
  dns_tcp_port = 7053,
  dns_http_port = 7054,
  names_port = 7055,  // the SOCKS5 server's own, over UDP
  udp_tunnel_port = 7090,
};

// How an upstream proxy treats a request, told by the last digit of the address
// that is asked for.
enum class Reception : std::uint8_t { polite, closes, resets, dribbles, ignores };
constexpr unsigned reception_kinds = 5;

// The address that the name servers answer a name with.
std::array<std::uint8_t, 4> address_of_name(std::string_view name);
std::string question_name(Bytes query);

// After how many datagrams a tunnel is closed; 0: after a few seconds.
extern unsigned datagrams_per_tunnel;

// Connections that have come to any of them.
extern unsigned connections_served;

void start_far_ends();

}  // namespace peers
