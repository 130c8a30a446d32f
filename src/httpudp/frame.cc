#include "httpudp/frame.h"

#include <algorithm>
#include <cstring>

#include "main/byte_reader.h"

namespace vrox::httpudp {

namespace {

constexpr std::uint8_t address_v4 = 1;
constexpr std::uint8_t address_v6 = 4;
constexpr std::size_t fragment_at = 2;
constexpr std::size_t address_at = 4;

std::uint16_t host_length(Bytes bytes) {
  std::uint16_t length = 0;
  std::memcpy(&length, bytes.data(), length_size);
  return length;
}

std::uint16_t port_in(Bytes two) {
  std::uint16_t port_be = 0;
  std::memcpy(&port_be, two.data(), sizeof port_be);
  return port_be;
}

// Fills a span from its end to its front.
class BackWriter {
 public:
  explicit BackWriter(std::span<std::uint8_t> room) : room_(room) {}
  void put(Bytes bytes) {
    size_ += bytes.size();
    std::copy(bytes.begin(), bytes.end(), room_.end() - static_cast<std::ptrdiff_t>(size_));
  }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  std::span<std::uint8_t> room_;
  std::size_t size_ = 0;
};

void put_header(BackWriter& out, const SocketAddress& destination) {
  std::array<std::uint8_t, sizeof(std::uint16_t)> port{};
  const std::uint16_t port_be = destination.port_be();
  std::memcpy(port.data(), &port_be, port.size());
  out.put(port);
  const bool is_v4 = destination.family() == AF_INET;
  if (is_v4) {
    out.put(destination.ipv4());
  } else {
    out.put(destination.uniform());
  }
  const std::array<std::uint8_t, address_at> start{0, 0, 0, is_v4 ? address_v4 : address_v6};
  out.put(start);
}

}  // namespace

Frame first_frame(Bytes bytes) {
  if (bytes.size() <= length_size) return {};
  const std::size_t length = host_length(bytes);
  if (length > bytes.size() - length_size) return {};
  return {.datagram = bytes.subspan(length_size, length), .size = length_size + length};
}

std::optional<RelayHeader> read_relay_header(Bytes datagram) {
  ByteReader in(datagram);
  (void)in.take(type_at);
  const bool is_v4 = in.u8() == address_v4;
  const Bytes address = in.take(is_v4 ? 4 : 16);
  const Bytes port = in.take(sizeof(std::uint16_t));
  if (!in.ok()) return std::nullopt;
  if (is_v4) {
    return RelayHeader{header_v4, SocketAddress::v4(address.first<4>(), port_in(port))};
  }
  RelayHeader header{header_v6, SocketAddress::v6(address.first<16>(), port_in(port))};
  header.address.normalise();
  return header;
}

bool has_relay_header(Bytes datagram) {
  if (datagram.size() <= address_at) return false;
  const std::uint8_t type = datagram[type_at];
  if (type == address_v4) return datagram.size() >= header_v4;
  const std::size_t with_name = address_at + 1 + datagram[address_at] + sizeof(std::uint16_t);
  // Some clients put a 16-byte address behind the type of names.
  const std::size_t least = type == address_name ? std::min(with_name, header_v6) : header_v6;
  return datagram.size() >= least;
}

bool is_fragment(Bytes datagram) {
  return datagram.size() > fragment_at && datagram[fragment_at] != 0;
}

std::size_t write_frame_head(std::span<std::uint8_t, max_frame_head> room,
                             const SocketAddress* destination, std::size_t payload) {
  BackWriter out(room);
  if (destination != nullptr) put_header(out, *destination);
  if (payload > max_framed - out.size()) return 0;
  const auto framed = static_cast<std::uint16_t>(out.size() + payload);
  std::array<std::uint8_t, length_size> length{};
  std::memcpy(length.data(), &framed, length.size());
  out.put(length);
  return out.size();
}

EndpointKey endpoint_key(const SocketAddress& normalised, std::uint8_t tag) {
  EndpointKey key{};
  const Address address = normalised.uniform();
  std::copy(address.begin(), address.end(), key.begin());
  const std::uint16_t port = normalised.port_be();
  std::memcpy(key.data() + address.size(), &port, sizeof port);
  key[18] = static_cast<std::uint8_t>(normalised.family());
  key[19] = tag;
  return key;
}

}  // namespace vrox::httpudp
