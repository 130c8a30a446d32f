// Listening sockets, opened while the configuration is read. Every failure is
// reported by the name of its call ("bind()"); the result is then -1.
#pragma once

#include <cstdint>
#include <string_view>

namespace vrox::config {

// How long an address that is in use is waited for. More than 0 in a restart: on a
// busy machine the previous instance may take its time to let go of it.
extern int address_patience_ms;

// A non-blocking TCP listener with a backlog of 128: IPv6 when the address text
// holds a ':', else IPv4. An IPv6 one takes IPv4 clients too.
[[nodiscard]] int open_listen_socket(std::string_view address, std::uint16_t port);

enum class UdpListener : std::uint8_t {
  plain,
  transparent,  // also gets datagrams for foreign addresses, and tells those addresses
};

// A non-blocking UDP listener that tells with each datagram to which local
// address it was sent (packet information).
[[nodiscard]] int open_udp_listener(std::string_view address, std::uint16_t port, UdpListener kind);

}  // namespace vrox::config
