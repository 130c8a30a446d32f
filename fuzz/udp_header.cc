// The relay header at the front of a datagram: from a client, and from a far end.
#include <algorithm>
#include <array>
#include <cstdint>

#include "check.h"
#include "httpudp/frame.h"

using vrox::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace udp = vrox::httpudp;
  const udp::Bytes datagram(data, size);
  const auto header = udp::read_relay_header(datagram);
  if (udp::has_relay_header(datagram)) check(size >= 7);
  if (udp::is_fragment(datagram)) check(size >= 3);
  if (!header) return 0;
  // A sound reply is one that the relay would pass on to a SOCKS5 client as well.
  check(udp::has_relay_header(datagram) && header->size <= size);

  std::array<std::uint8_t, udp::max_frame_head> room{};
  const std::size_t payload = size - header->size;
  const std::size_t head = udp::write_frame_head(room, &header->address, payload);
  const std::size_t own_size =
      header->address.family() == AF_INET ? udp::header_v4 : udp::header_v6;
  check((head == 0) == (own_size + payload > udp::max_framed));
  if (head == 0) return 0;
  check(head == udp::length_size + own_size);
  const auto again = udp::read_relay_header(udp::Bytes(room).last(own_size));
  check(again && udp::endpoint_key(again->address, 1) == udp::endpoint_key(header->address, 1));
  if (own_size == header->size) {  // the address as it stood there
    check(
        std::ranges::equal(udp::Bytes(room).last(own_size - 4), datagram.subspan(4, own_size - 4)));
  }
  return 0;
}
