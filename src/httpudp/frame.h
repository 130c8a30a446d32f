// How datagrams stand in a tunnel: a 16-bit length in the host's byte order, then
// that many bytes, which are a SOCKS5 UDP request header (RFC 1928, section 7) and
// the payload. Pure functions over foreign bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>

#include "main/address.h"

namespace vrox::httpudp {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t length_size = sizeof(std::uint16_t);
constexpr std::size_t type_at = 3;        // in a relay header
constexpr std::uint8_t address_name = 3;  // the type that says a host name
constexpr std::size_t header_v4 = 10;     // reserved, fragment, address type, address, port
constexpr std::size_t header_v6 = 22;
constexpr std::size_t max_frame_head = length_size + header_v6;
constexpr std::size_t max_framed = std::numeric_limits<std::uint16_t>::max();

// The first frame of what a tunnel brought. Fewer than three bytes never are one:
// no frame is empty.
struct Frame {
  Bytes datagram;        // header and payload
  std::size_t size = 0;  // of the frame; 0: not all of it has come
};
[[nodiscard]] Frame first_frame(Bytes bytes);

struct RelayHeader {
  std::size_t size = 0;
  SocketAddress address;
};
// Of a datagram from the far end: address type 1 is IPv4, every other one counts
// as IPv6 (an IPv4-mapped address is IPv4 then). Empty when the datagram ends
// inside its header.
[[nodiscard]] std::optional<RelayHeader> read_relay_header(Bytes datagram);

// Whether a datagram is as long as its header says; with names, which the far end
// resolves or answers for.
[[nodiscard]] bool has_relay_header(Bytes datagram);
// A part of a fragmented datagram, which a relay that cannot reassemble must drop.
[[nodiscard]] bool is_fragment(Bytes datagram);

// Writes what goes before a payload to the end of `room`: the length, unless
// `destination` is null the header for it. The size of that; 0 when the length does
// not fit its 16 bits.
[[nodiscard]] std::size_t write_frame_head(std::span<std::uint8_t, max_frame_head> room,
                                           const SocketAddress* destination, std::size_t payload);

// What identifies a socket address in an index, with a tag for what else tells
// equal ones apart.
using EndpointKey = std::array<std::uint8_t, 20>;
[[nodiscard]] EndpointKey endpoint_key(const SocketAddress& normalised, std::uint8_t tag);

}  // namespace vrox::httpudp
