#include "tun/packet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bytes.h"
#include "event/loop.h"

namespace vrox::tun {
namespace {

using Octets = std::vector<std::uint8_t>;

std::string to_hex(Bytes bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xf];
  }
  return text;
}

// From the server to the client.
Route route(std::uint8_t version, std::uint16_t port, std::uint16_t client_port) {
  const bool v4 = version == ip_v4;
  return {version, parse_address(v4 ? "192.0.2.7" : "2001:db8::7", 0)->uniform(),
          parse_address(v4 ? "10.5.5.1" : "fd00::1", 0)->uniform(), htons(port),
          htons(client_port)};
}

// RFC 1071 word by word, as the RFC tells it.
std::uint16_t reference_checksum(const Octets& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    sum += static_cast<std::uint32_t>(bytes[i] << 8);
    if (i + 1 < bytes.size()) sum += bytes[i + 1];
  }
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return htons(static_cast<std::uint16_t>(~sum & 0xffff));
}

TEST(TunChecksum, AgreesWithTheRfcAtEveryLengthAndSplit) {
  EXPECT_EQ(ntohs(tun_checksum(bytes_of(from_hex("0001f203f4f5f6f7")))), 0x220d)
      << "RFC 1071, section 3";
  EXPECT_EQ(tun_checksum(bytes_of("\xff\xff")), 0) << "a result of 0 stays 0";
  Octets bytes;
  for (unsigned length = 0; length < 300; ++length) {
    ASSERT_EQ(tun_checksum(bytes), reference_checksum(bytes)) << "length " << length;
    ChecksumSum sum;
    const std::size_t split = length * 7 % (length + 1);
    sum.add(Bytes(bytes).first(split));
    sum.add(Bytes(bytes).subspan(split));
    ASSERT_EQ(sum.finish(), reference_checksum(bytes)) << "length " << length << ", at " << split;
    bytes.push_back(static_cast<std::uint8_t>(0xff - length * 37));
  }
  const Octets ones(65536, 0xff);
  EXPECT_EQ(tun_checksum(ones), reference_checksum(ones)) << "every carry there can be";
}

TEST(TunPacket, HeadersByteForByte) {
  const struct {
    const char* why;
    Route route;
    TcpFields fields;
    std::string_view payload;
    const char* header;
  } tcp[] = {
      {"SYN-ACK over IPv6, with its MSS",
       route(ip_v6, 443, 40000),
       {.sequence = 0, .acknowledgement = 0x01020305, .flags = 0x12, .window = 65535, .mss = 65471},
       "",
       "600000000018064020010db8000000000000000000000007fd000000000000000000000000000001"
       "01bb9c4000000000010203056012ffffd14600000204ffbf"},
      {"data, with an odd length",
       route(ip_v4, 443, 40000),
       {.sequence = 1, .acknowledgement = 0x01020305, .flags = 0x18, .window = 1234, .mss = {}},
       "hello",
       "4500002d000000004006a9bec00002070a050501"
       "01bb9c400000000101020305501804d2f4120000"},
  };
  HeaderBuffer buffer;
  for (const auto& c : tcp) {
    buffer.fill(0xaa);
    const Bytes all = bytes_of(c.payload);
    for (std::size_t split = 0; split <= all.size(); ++split) {
      const Pieces pieces{all.first(split), all.subspan(split)};
      EXPECT_EQ(to_hex(build_tcp(buffer, c.route, c.fields, sum_up(pieces))), c.header)
          << c.why << split;
    }
  }
  EXPECT_EQ(to_hex(build_udp(buffer, route(ip_v4, 53, 40001), bytes_of("abc"))),
            "4500001f000000004011a9c1c00002070a0505010035"
            "9c41000bcdf1");
  EXPECT_EQ(to_hex(build_udp(buffer, route(ip_v6, 53, 40001), bytes_of("abc"))),
            "60000000000b114020010db8000000000000000000000007fd000000000000000000000000000001"
            "00359c41000b743d");
}

// A packet of the client's: an IP header and a TCP header that ask for `flags`.
Octets client_packet(std::uint8_t version, std::size_t ip_options, std::uint8_t flags) {
  const Route back = route(version, 443, 40000);
  const Route forth{version, back.destination, back.source, back.destination_port_be,
                    back.source_port_be};
  HeaderBuffer buffer;
  const Bytes plain =
      build_tcp(buffer, forth,
                {.sequence = 0x10, .acknowledgement = 9, .flags = flags, .window = 1, .mss = {}});
  Octets packet(plain.begin(), plain.end());
  packet.insert(packet.begin() + static_cast<std::ptrdiff_t>(ip_header(version)), ip_options, 1);
  if (version == ip_v4) {
    packet[0] = static_cast<std::uint8_t>(0x45 + ip_options / 4);
    packet[3] = static_cast<std::uint8_t>(packet.size());
  }
  return packet;
}

TEST(TunPacket, ResetsByteForByte) {
  const struct {
    const char* why;
    Octets packet;
    std::size_t length;
    const char* reset;
  } cases[] = {
      {"plain", client_packet(ip_v4, 0, 0x10), 40,
       "45000028000000004006a9c3c00002070a050501"
       "01bb9c4000000000000000115014000040b70000"},
      {"behind as many bytes as there were options, which are zero and counted",
       client_packet(ip_v4, 4, 0x18), 44,
       "4500002c000000004006a9bfc00002070a05050100000000"
       "01bb9c4000000000000000115014000040b70000"},
      {"IPv6 says the length of the packet and 20", client_packet(ip_v6, 0, 0x10), 63,
       "600000000053064020010db8000000000000000000000007fd000000000000000000000000000001"
       "01bb9c40000000000000001150140000e7020000"},
  };
  for (const auto& c : cases) {
    const auto ip = parse_ip(c.packet);
    ASSERT_TRUE(ip) << c.why;
    const auto tcp = parse_tcp(*ip);
    ASSERT_TRUE(tcp) << c.why;
    HeaderBuffer buffer;
    buffer.fill(0xaa);
    EXPECT_EQ(to_hex(build_reset(buffer, *ip, c.length, *tcp)), c.reset) << c.why;
  }
}

TEST(TunPacket, LengthsMustFit) {
  const struct {
    const char* why;
    std::uint8_t version;
    std::size_t offset;  // of the byte that is changed
    std::uint8_t value;
    bool ip_fits;
    bool tcp_fits;
  } cases[] = {
      {"unchanged", ip_v4, 1, 0, true, true},
      {"IP header of 16 bytes", ip_v4, 0, 0x44, false, false},
      {"IP header longer than the packet", ip_v4, 0, 0x4f, false, false},
      {"total length below the header", ip_v4, 3, 19, false, false},
      {"total length beyond the packet", ip_v4, 3, 41, false, false},
      {"total length that cuts the TCP header", ip_v4, 3, 39, true, false},
      {"first fragment", ip_v4, 6, 0x20, false, false},
      {"last fragment", ip_v4, 7, 1, false, false},
      {"forbidden to fragment is no fragment", ip_v4, 6, 0x40, true, true},
      {"data offset of 16 bytes", ip_v4, 32, 0x40, true, false},
      {"data offset beyond the packet", ip_v4, 32, 0x60, true, false},
      {"IPv6 unchanged", ip_v6, 1, 0, true, true},
      {"IPv6 length beyond the packet", ip_v6, 5, 21, false, false},
      {"IPv6 length that cuts the TCP header", ip_v6, 5, 19, true, false},
      {"version 5", ip_v4, 0, 0x55, false, false},
  };
  for (const auto& c : cases) {
    Octets packet = client_packet(c.version, 0, 0x10);
    packet[c.offset] = c.value;
    const auto ip = parse_ip(packet);
    EXPECT_EQ(ip.has_value(), c.ip_fits) << c.why;
    EXPECT_EQ(ip && parse_tcp(*ip), c.tcp_fits) << c.why;
  }
  for (const std::uint8_t version : {ip_v4, ip_v6}) {
    const Octets whole = client_packet(version, 0, 0x10);
    for (std::size_t length = 0; length < whole.size(); ++length) {
      EXPECT_FALSE(parse_ip(Bytes(whole).first(length))) << "cut at " << length;
      EXPECT_EQ(classify(Bytes(whole).first(length)).has_value(), length >= 21) << length;
    }
  }
  Octets padded = client_packet(ip_v4, 0, 0x10);
  padded.resize(60);
  EXPECT_TRUE(parse_tcp(*parse_ip(padded))->payload.empty()) << "padding is no payload";
}

TEST(TunPacket, UdpStandsBehindTheOptions) {
  Octets packet = client_packet(ip_v4, 8, 0);
  std::copy_n("\x12\x34\0\x35", 4, packet.begin() + 28);
  event::TunEvent event;
  ASSERT_TRUE(event::tun_parse_udp(udp_datagram, event, packet));
  EXPECT_EQ(event.version(), ip_v4);
  EXPECT_EQ(ntohs(event.source_port_be), 0x1234);
  EXPECT_EQ(ntohs(event.destination_port_be), 53);
  EXPECT_EQ(event.source, route(ip_v4, 0, 0).destination);
  EXPECT_EQ(event.destination, route(ip_v4, 0, 0).source);
  EXPECT_EQ(event.payload.data(), packet.data() + 36);
  EXPECT_EQ(event.payload.size(), packet.size() - 36);
  packet.resize(35);
  EXPECT_FALSE(event::tun_parse_udp(udp_datagram, event, packet));
}

}  // namespace
}  // namespace vrox::tun
