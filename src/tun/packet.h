// IPv4, IPv6, TCP and UDP as bytes: bounded parsing of what comes from the
// device, and the headers of what is written to it (RFC 791, 8200, 9293, 768).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "main/address.h"

namespace vrox::tun {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t ip_v4 = 4;
constexpr std::uint8_t ip_v6 = 6;
constexpr std::uint8_t protocol_tcp = 6;
constexpr std::uint8_t protocol_udp = 17;

constexpr std::size_t ipv4_header = 20;
constexpr std::size_t ipv4_max_header = 60;
constexpr std::size_t ipv6_header = 40;
constexpr std::size_t tcp_header = 20;
constexpr std::size_t udp_header = 8;

[[nodiscard]] constexpr std::size_t ip_header(std::uint8_t version) {
  return version == ip_v4 ? ipv4_header : ipv6_header;
}

// Payload that the length field of an IP packet leaves room for: IPv4 counts its
// own header, IPv6 does not.
constexpr std::size_t max_tcp_payload_v4 = 65535 - ipv4_header - tcp_header;
constexpr std::size_t max_tcp_payload_v6 = 65535 - tcp_header;
constexpr std::size_t max_udp_payload_v4 = 65535 - ipv4_header - udp_header;
constexpr std::size_t max_udp_payload_v6 = 65535 - udp_header;

// ---- reading ------------------------------------------------------------------

// Views into a packet whose lengths have been checked against each other.
struct IpPacket {
  std::uint8_t version = 0;
  std::uint8_t protocol = 0;
  Address source{};       // an IPv4 address in the first 4 bytes
  Address destination{};  // likewise
  std::size_t header_length = 0;
  Bytes transport;  // what stands behind the IP header; padding is cut off
};

// Version and protocol, without a look at the rest. Empty for fewer than 21
// bytes (no room for any header with data) and for other IP versions.
struct PacketKind {
  std::uint8_t version = 0;
  std::uint8_t protocol = 0;
};
[[nodiscard]] std::optional<PacketKind> classify(Bytes packet);

// Empty for fragments, and when the lengths do not fit. IPv6 extension headers
// are not walked.
[[nodiscard]] std::optional<IpPacket> parse_ip(Bytes packet);

enum TcpFlag : std::uint8_t { fin = 0x01, syn = 0x02, rst = 0x04, psh = 0x08, ack = 0x10 };
constexpr std::uint8_t tcp_flags_mask = 0x3f;  // without the two of ECN

struct TcpSegment {
  std::uint16_t source_port_be = 0;
  std::uint16_t destination_port_be = 0;
  std::uint32_t sequence = 0;
  std::uint32_t acknowledgement = 0;
  std::uint8_t flags = 0;  // within tcp_flags_mask
  std::uint16_t window = 0;
  Bytes payload;
};
[[nodiscard]] std::optional<TcpSegment> parse_tcp(const IpPacket& packet);

struct UdpDatagram {
  std::uint16_t source_port_be = 0;
  std::uint16_t destination_port_be = 0;
  Bytes payload;
};
// The length and checksum fields are not looked at.
[[nodiscard]] std::optional<UdpDatagram> parse_udp(const IpPacket& packet);

// ---- writing ------------------------------------------------------------------

// Payload in up to two pieces, as a ring buffer has it.
using Pieces = std::array<Bytes, 2>;

// The Internet checksum (RFC 1071) of bytes in several pieces. Sums in the
// host's byte order, which the checksum does not depend on.
class ChecksumSum {
 public:
  void add(Bytes bytes);
  // Of bytes that come next, summed on their own.
  void add(const ChecksumSum& next);
  // The 16 bits as they are stored in a header.
  [[nodiscard]] std::uint16_t finish() const;

 private:
  void append(std::uint64_t total, bool is_odd);

  std::uint64_t sum_ = 0;
  bool odd_ = false;  // the next piece begins in the low half of a word
};

// Of one piece, as it is stored in a header. A result of 0 stays 0.
[[nodiscard]] std::uint16_t tun_checksum(Bytes bytes);

// From whom a packet goes to whom.
struct Route {
  std::uint8_t version = ip_v4;
  Address source{};
  Address destination{};
  std::uint16_t source_port_be = 0;
  std::uint16_t destination_port_be = 0;
};

struct TcpFields {
  std::uint32_t sequence = 0;
  std::uint32_t acknowledgement = 0;
  std::uint8_t flags = 0;
  std::uint16_t window = 0;
  std::optional<std::uint16_t> mss;  // the one option that is ever sent
};

// Room for every header that is written here.
using HeaderBuffer = std::array<std::uint8_t, ipv4_max_header + tcp_header>;

// What a header says of the payload behind it.
struct PayloadSum {
  std::size_t size = 0;
  ChecksumSum sum;
};
[[nodiscard]] PayloadSum sum_up(const Pieces& payload);

// The IP and transport headers, with checksums over the payload that the caller
// puts behind them. The view is into `buffer`. The payload must fit.
[[nodiscard]] Bytes build_tcp(HeaderBuffer& buffer, const Route& route, const TcpFields& fields,
                              const PayloadSum& payload = {});
[[nodiscard]] Bytes build_udp(HeaderBuffer& buffer, const Route& route, Bytes payload);

// The reset that answers a segment of no known connection.
[[nodiscard]] Bytes build_reset(HeaderBuffer& buffer, const IpPacket& packet,
                                std::size_t packet_length, const TcpSegment& segment);

}  // namespace vrox::tun
