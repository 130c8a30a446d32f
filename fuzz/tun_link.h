// The device of the TUN targets: one end of a pair of sockets is read by the real
// event loop, the other one is here.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "event/device.h"
#include "event/loop.h"
#include "main/loop.h"
#include "tun/flow.h"
#include "tun/packet.h"

namespace tun_link {

inline void check(bool holds) {
  if (!holds) std::abort();
}

inline int far_end = -1;
inline std::size_t under_way = 0;  // packets

inline void open(vrox::tun::PacketHandler handler) {
  if (far_end >= 0) return;
  static vrox::Loop loop;
  std::array<int, 2> ends{};
  check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends.data()) == 0);
  for (const int end : ends) {
    const int large_packets = 4 << 20;
    check(setsockopt(end, SOL_SOCKET, SO_SNDBUF, &large_packets, sizeof large_packets) == 0);
  }
  vrox::event::tun_fd = ends[0];
  vrox::event::tun_options.blocking = true;
  check(loop.open(1) && vrox::event::tun_attach(loop, handler));
  far_end = ends[1];
}

inline void put(vrox::tun::Bytes packet) {
  if (!packet.empty() && send(far_end, packet.data(), packet.size(), 0) > 0) ++under_way;
}

// Everything that was put is handled together; `take` gets what was written.
template <class Take>
void pump(Take take) {
  constexpr std::size_t pass = 64;
  static std::array<std::uint8_t, vrox::tun::ipv6_header + 65535> bytes{};
  for (std::size_t handled = 0; handled <= under_way; handled += pass) {
    vrox::event::tun_event_loop();
    for (ssize_t length = 0; (length = recv(far_end, bytes.data(), bytes.size(), MSG_TRUNC)) > 0;) {
      check(static_cast<std::size_t>(length) <= bytes.size());
      take(vrox::tun::Bytes(bytes).first(static_cast<std::size_t>(length)));
    }
  }
  under_way = 0;
}

}  // namespace tun_link
