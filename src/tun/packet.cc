#include "tun/packet.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "main/byte_reader.h"

namespace vrox::tun {

namespace {

constexpr std::size_t shortest_packet = 21;
constexpr std::uint8_t time_to_live = 64;
constexpr std::uint8_t ipv4_plain_header = 0x45;  // version 4, five 32-bit words
constexpr std::uint16_t fragment_bits = 0x3fff;   // more fragments, and the offset
constexpr std::size_t mss_option = 4;

constexpr std::size_t ipv4_checksum_offset = 10;
constexpr std::size_t tcp_checksum_offset = 16;
constexpr std::size_t udp_checksum_offset = 6;

std::uint32_t be32(ByteReader& in) {
  const std::uint32_t high = in.be16();
  return high << 16 | in.be16();
}

std::uint16_t port_be(ByteReader& in) { return htons(in.be16()); }

Address address_of(Bytes bytes) {
  Address address{};
  std::copy(bytes.begin(), bytes.end(), address.begin());
  return address;
}

std::optional<IpPacket> parse_ipv4(Bytes packet) {
  ByteReader in(packet);
  IpPacket ip;
  ip.version = ip_v4;
  ip.header_length = std::size_t{in.u8() & 0xfU} * 4;
  in.take(1);
  const std::size_t total = in.be16();
  in.take(2);
  const std::uint16_t fragment = in.be16();
  in.take(1);
  ip.protocol = in.u8();
  in.take(2);
  ip.source = address_of(in.take(4));
  ip.destination = address_of(in.take(4));
  if (!in.ok() || (fragment & fragment_bits) != 0) return std::nullopt;
  if (ip.header_length < ipv4_header || total < ip.header_length || total > packet.size()) {
    return std::nullopt;
  }
  ip.transport = packet.first(total).subspan(ip.header_length);
  return ip;
}

std::optional<IpPacket> parse_ipv6(Bytes packet) {
  ByteReader in(packet);
  IpPacket ip;
  ip.version = ip_v6;
  ip.header_length = ipv6_header;
  in.take(4);
  const std::size_t length = in.be16();
  ip.protocol = in.u8();
  in.take(1);
  ip.source = address_of(in.take(16));
  ip.destination = address_of(in.take(16));
  ip.transport = in.take(length);
  if (!in.ok()) return std::nullopt;
  return ip;
}

// Writes a header front to back. The buffer holds every header that is built
// here, so its end is never reached.
class Writer {
 public:
  explicit Writer(std::span<std::uint8_t> bytes) : rest_(bytes) {}
  void u8(std::uint8_t value) {
    rest_.front() = value;
    rest_ = rest_.subspan(1);
  }
  void be16(std::size_t value) {
    u8(static_cast<std::uint8_t>(value >> 8 & 0xff));
    u8(static_cast<std::uint8_t>(value & 0xff));
  }
  void be32(std::uint32_t value) {
    be16(value >> 16);
    be16(value);
  }
  void bytes(Bytes value) {
    std::memcpy(rest_.data(), value.data(), value.size());
    rest_ = rest_.subspan(value.size());
  }
  void stored(std::uint16_t value) {  // in the byte order in which it is kept
    std::array<std::uint8_t, 2> raw{};
    std::memcpy(raw.data(), &value, raw.size());
    bytes(raw);
  }

 private:
  std::span<std::uint8_t> rest_;
};

Bytes address_bytes(std::uint8_t version, const Address& address) {
  return Bytes(address).first(version == ip_v4 ? 4 : 16);
}

void put_checksum(std::span<std::uint8_t> header, std::size_t offset, std::uint16_t checksum) {
  Writer(header.subspan(offset)).stored(checksum);
}

// `payload_length` is what stands behind the header.
void write_ip(std::span<std::uint8_t> header, const Route& route, std::uint8_t protocol,
              std::size_t payload_length) {
  Writer out(header);
  if (route.version == ip_v4) {
    out.u8(ipv4_plain_header);
    out.u8(0);
    out.be16(ipv4_header + payload_length);
    out.be32(0);  // identification, flags and fragment offset
    out.u8(time_to_live);
    out.u8(protocol);
    out.be16(0);
  } else {
    out.be32(0x60000000);
    out.be16(payload_length);
    out.u8(protocol);
    out.u8(time_to_live);
  }
  out.bytes(address_bytes(route.version, route.source));
  out.bytes(address_bytes(route.version, route.destination));
  if (route.version != ip_v4) return;
  put_checksum(header, ipv4_checksum_offset, tun_checksum(header.first(ipv4_header)));
}

// Addresses, a zero byte, the protocol and a 16-bit length. For IPv6 the RFC has
// wider fields, whose extra zeroes change no sum.
ChecksumSum pseudo_header(const Route& route, std::uint8_t protocol, std::size_t length) {
  ChecksumSum sum;
  sum.add(address_bytes(route.version, route.source));
  sum.add(address_bytes(route.version, route.destination));
  std::array<std::uint8_t, 4> tail{};
  Writer out(tail);
  out.be16(protocol);
  out.be16(length);
  sum.add(tail);
  return sum;
}

void write_tcp(std::span<std::uint8_t> header, const Route& route, const TcpFields& fields) {
  Writer out(header);
  out.stored(route.source_port_be);
  out.stored(route.destination_port_be);
  out.be32(fields.sequence);
  out.be32(fields.acknowledgement);
  out.u8(static_cast<std::uint8_t>(header.size() / 4 << 4));
  out.u8(fields.flags);
  out.be16(fields.window);
  out.be32(0);  // checksum, urgent pointer
  if (!fields.mss) return;
  out.be16(0x0204);
  out.be16(*fields.mss);
}

// 32-bit words added up in 64 bits, which cannot overflow; eight beside each
// other, because what depends on nothing runs at the speed of the memory.
using Lanes = std::uint64_t __attribute__((vector_size(16)));
constexpr std::size_t block_size = 4 * sizeof(Lanes);

Lanes load(const std::uint8_t* bytes) {
  Lanes words;
  std::memcpy(&words, bytes, sizeof words);
  return words;
}
Lanes halves(Lanes words) { return (words & 0xffffffff) + (words >> 32); }

struct BlockSums {
  Lanes a{}, b{}, c{}, d{};

  void add(const std::uint8_t* block) {
    a += halves(load(block));
    b += halves(load(block + sizeof(Lanes)));
    c += halves(load(block + 2 * sizeof(Lanes)));
    d += halves(load(block + 3 * sizeof(Lanes)));
  }
  [[nodiscard]] std::uint64_t total() const {
    const Lanes sum = a + b + c + d;
    return sum[0] + sum[1];
  }
};

std::uint64_t folded(std::uint64_t sum) {
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return sum;
}

}  // namespace

std::optional<PacketKind> classify(Bytes packet) {
  if (packet.size() < shortest_packet) return std::nullopt;
  const auto version = static_cast<std::uint8_t>(packet[0] >> 4);
  if (version == ip_v4) return PacketKind{version, packet[9]};
  if (version == ip_v6) return PacketKind{version, packet[6]};
  return std::nullopt;
}

std::optional<IpPacket> parse_ip(Bytes packet) {
  if (packet.empty()) return std::nullopt;
  const unsigned version = packet[0] >> 4;
  if (version == ip_v4) return parse_ipv4(packet);
  if (version == ip_v6) return parse_ipv6(packet);
  return std::nullopt;
}

std::optional<TcpSegment> parse_tcp(const IpPacket& packet) {
  ByteReader in(packet.transport);
  TcpSegment segment;
  segment.source_port_be = port_be(in);
  segment.destination_port_be = port_be(in);
  segment.sequence = be32(in);
  segment.acknowledgement = be32(in);
  const std::size_t offset = std::size_t{4} * (in.u8() >> 4);
  segment.flags = in.u8() & tcp_flags_mask;
  segment.window = in.be16();
  if (!in.ok() || offset < tcp_header || offset > packet.transport.size()) return std::nullopt;
  segment.payload = packet.transport.subspan(offset);
  return segment;
}

std::optional<UdpDatagram> parse_udp(const IpPacket& packet) {
  ByteReader in(packet.transport);
  UdpDatagram datagram;
  datagram.source_port_be = port_be(in);
  datagram.destination_port_be = port_be(in);
  in.take(4);
  datagram.payload = in.take(in.left());
  if (!in.ok()) return std::nullopt;
  return datagram;
}

void ChecksumSum::add(Bytes bytes) {
  if (bytes.empty()) return;
  BlockSums sums;
  for (; bytes.size() >= block_size; bytes = bytes.subspan(block_size)) sums.add(bytes.data());
  std::array<std::uint8_t, block_size> tail{};
  std::copy(bytes.begin(), bytes.end(), tail.begin());
  sums.add(tail.data());
  append(sums.total(), bytes.size() % 2 != 0);
}

void ChecksumSum::add(const ChecksumSum& next) { append(next.sum_, next.odd_); }

void ChecksumSum::append(std::uint64_t total, bool is_odd) {
  std::uint64_t sum = folded(total);
  // A piece that begins at an odd byte adds up to the sum with its bytes swapped.
  if (odd_) sum = (sum & 0xff) << 8 | sum >> 8;
  sum_ += sum;
  odd_ ^= is_odd;
}

std::uint16_t ChecksumSum::finish() const { return static_cast<std::uint16_t>(~folded(sum_)); }

std::uint16_t tun_checksum(Bytes bytes) {
  ChecksumSum sum;
  sum.add(bytes);
  return sum.finish();
}

PayloadSum sum_up(const Pieces& payload) {
  PayloadSum result;
  for (const Bytes piece : payload) {
    result.size += piece.size();
    result.sum.add(piece);
  }
  return result;
}

Bytes build_tcp(HeaderBuffer& buffer, const Route& route, const TcpFields& fields,
                const PayloadSum& payload) {
  const std::size_t ip_length = ip_header(route.version);
  const std::size_t tcp_length = tcp_header + (fields.mss ? mss_option : 0);
  const std::size_t length = tcp_length + payload.size;
  const std::span<std::uint8_t> header = std::span(buffer).first(ip_length + tcp_length);
  const std::span<std::uint8_t> tcp = header.subspan(ip_length);
  write_ip(header, route, protocol_tcp, length);
  write_tcp(tcp, route, fields);
  ChecksumSum sum = pseudo_header(route, protocol_tcp, length);
  sum.add(tcp);
  sum.add(payload.sum);
  put_checksum(tcp, tcp_checksum_offset, sum.finish());
  return header;
}

Bytes build_udp(HeaderBuffer& buffer, const Route& route, Bytes payload) {
  const std::size_t ip_length = ip_header(route.version);
  const std::size_t length = udp_header + payload.size();
  const std::span<std::uint8_t> header = std::span(buffer).first(ip_length + udp_header);
  const std::span<std::uint8_t> udp = header.subspan(ip_length);
  write_ip(header, route, protocol_udp, length);
  Writer out(udp);
  out.stored(route.source_port_be);
  out.stored(route.destination_port_be);
  out.be16(length);
  out.be16(0);
  ChecksumSum sum = pseudo_header(route, protocol_udp, length);
  sum.add(udp);
  sum.add(payload);
  put_checksum(udp, udp_checksum_offset, sum.finish());
  return header;
}

Bytes build_reset(HeaderBuffer& buffer, const IpPacket& packet, std::size_t packet_length,
                  const TcpSegment& segment) {
  const Route route{.version = packet.version,
                    .source = packet.destination,
                    .destination = packet.source,
                    .source_port_be = segment.destination_port_be,
                    .destination_port_be = segment.source_port_be};
  const TcpFields fields{
      .acknowledgement = segment.sequence + 1, .flags = TcpFlag::rst | TcpFlag::ack, .mss = {}};
  buffer = {};
  // The TCP header stands as far behind as in the packet that is answered: with
  // options there, zeroes follow the plain header, and the length counts them.
  // The length of an IPv6 one is the answered packet's and 20 more. Both intended.
  const bool v4 = packet.version == ip_v4;
  const std::size_t said =
      v4 ? packet.header_length - ipv4_header + tcp_header : packet_length + tcp_header;
  write_ip(buffer, route, protocol_tcp, said);
  const std::span<std::uint8_t> tcp = std::span(buffer).subspan(packet.header_length, tcp_header);
  write_tcp(tcp, route, fields);
  ChecksumSum sum = pseudo_header(route, protocol_tcp, tcp_header);
  sum.add(tcp);
  put_checksum(tcp, tcp_checksum_offset, sum.finish());
  return Bytes(buffer).first(packet.header_length + tcp_header);
}

}  // namespace vrox::tun
