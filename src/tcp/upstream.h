// A connection to an upstream server in the making: dialling with or without
// TCP Fast Open, and the state of the proxy handshakes on it. Knows nothing of
// who dials; the TCP proxy, DNS and UDP over HTTP each keep one per exchange.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

#include "main/address.h"

namespace vrox::tcp {

enum class LinkState : std::uint8_t {
  unconnected = 0,  // the first write must carry the connect (Fast Open)
  connecting = 1,
  connected = 2,
};

enum class Socks5State : std::uint8_t {
  greeting = 0,
  method = 1,
  credentials = 3,
  reply = 4,
  done = 5,
};

enum class TunnelState : std::uint8_t { request = 0, reply = 1, open = 2 };

struct Upstream {
  int fd = -1;
  LinkState state = LinkState::unconnected;
  Socks5State socks5_state = Socks5State::greeting;
  TunnelState tunnel_state = TunnelState::request;
  // How far a CONNECT proxy's reply has been read: of "HTTP" at its start, and of
  // the bytes that end a head.
  std::uint8_t reply_prefix = 0;
  std::uint8_t reply_end = 0;
  std::uint32_t reply_length = 0;
  const SocketAddress* address = nullptr;  // what is connected to; outlives the connection
};

// Opens a non-blocking socket and connects it, unless the first write is to do
// so. False with errno, reported as "socket()" or "connect()", when that fails;
// the descriptor is closed then.
[[nodiscard]] bool dial(Upstream& upstream, const SocketAddress& to, bool fast_open);
// The same without a report.
[[nodiscard]] bool dial_quietly(Upstream& upstream, const SocketAddress& to, bool fast_open);

void set_no_delay(int fd);  // TCP_NODELAY

// SO_KEEPALIVE with the given idle time (TCP_KEEPIDLE); 0 switches it off. What
// is set on a listener holds for the connections it accepts.
void set_keep_alive(int fd, std::int32_t idle_seconds);

// Connects, without waiting for the first write, what was dialled with Fast
// Open. False when that fails at once.
[[nodiscard]] bool connect_now(Upstream& upstream);

// Writes, or connects and writes in one when nothing was sent yet. As write(2),
// and -1 with EINPROGRESS when only the connect was begun. A kernel that has no
// Fast Open connects plainly.
[[nodiscard]] ssize_t upstream_write(Upstream& upstream, std::string_view bytes);

}  // namespace vrox::tcp
