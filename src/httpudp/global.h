// The httpUDP section. Written while the configuration is read; afterwards
// read-only, except the rings, which the service's thread moves.
#pragma once

#include <cstdint>
#include <string_view>

#include "httpmod/cipher.h"
#include "main/list.h"
#include "tcp/module.h"

namespace vrox::httpmod {
struct HttpModModule;
}

namespace vrox::httpudp {

struct Global {
  int tproxy_fd = -1;               // datagrams redirected by the firewall
  int socks5_fd = -1;               // datagrams of SOCKS5 clients
  std::uint16_t relay_port_be = 0;  // where socks5_fd listens
  std::int32_t max_sessions = 1024;
  List<tcp::Destination> destination_list;
  Ring<tcp::Destination> destinations;  // closed from the list; empty: no service
  List<tcp::Module> socks5_list;        // `socks5_set_dst`, newest first
  Ring<tcp::Module> socks5_modules;     // closed from the list; empty: no SOCKS5 upstream
  std::string_view http_header;         // the request's template; empty: the built-in one
  std::string_view header_host;         // empty: none
  std::string_view http_mod_name;
  httpmod::HttpModModule* http_mod = nullptr;  // resolved after the file is read
  httpmod::TunnelKey tunnel_key;
  std::int32_t timeout = 0;  // in passes of the sweeper
  bool fast_open = false;    // `tcp_option` TFO
};

extern Global global;

}  // namespace vrox::httpudp
