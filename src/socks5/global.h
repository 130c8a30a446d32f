// The socks5 section. Written while the configuration is read, read-only
// afterwards.
#pragma once

#include <cstdint>
#include <string_view>

#include "main/address.h"

namespace vrox::socks5 {

struct Global {
  int listen_fd = -1;
  std::int32_t max_sessions = 1024;
  std::int32_t keep_alive = 60;        // seconds; 0: none
  std::int32_t handshake_timeout = 0;  // in passes of the sweeper
  std::string_view credentials;        // the RFC 1929 message a client must send; empty: none
  int dns_fd = -1;                     // datagram socket towards dns_address, non-blocking
  SocketAddress dns_address;           // `socks5_dns`: AF_INET6, IPv4 as IPv4-mapped
  bool fast_open = false;              // `tcp_option` TFO
};

extern Global global;

}  // namespace vrox::socks5
