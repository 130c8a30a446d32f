// How a stream of frames is taken apart is a matter of the fuzz targets.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "bytes.h"
#include "httpmod/cipher.h"
#include "httpudp/frame.h"
#include "httpudp/global.h"
#include "httpudp/request.h"
#include "httpudp/tunnel.h"

namespace vrox::httpudp {
namespace {

using std::string_literals::operator""s;

const std::string head_v4 = "\0\0\0\1\1\2\3\4\0\x35"s;
const std::string head_v6 = "\0\0\0\4\x20\1\r\xb8\0\0\0\0\0\0\0\0\0\0\0\5\x1f\x90"s;

TEST(HttpUdpFrame, RelayHeaders) {
  const struct {
    const char* why;
    std::string datagram;
    bool from_client;     // whether the relay takes it
    std::size_t size;     // as a reply; 0: it ends inside its header
    const char* address;  // of a reply
  } cases[] = {
      {"IPv4", head_v4 + "x", true, 10, "1.2.3.4"},
      {"IPv4 cut", head_v4.substr(0, 9), false, 0, ""},
      {"IPv6", head_v6 + "x", true, 22, "2001:db8::5"},
      {"IPv6 cut", head_v6.substr(0, 21), false, 0, ""},
      {"a mapped address is IPv4", "\0\0\0\4"s + std::string(10, '\0') + "\xff\xff\1\2\3\4\0\x35"s,
       true, 22, "1.2.3.4"},
      {"a name", "\0\0\0\3\4host\0\x35"s, true, 0, ""},
      {"a name cut", "\0\0\0\3\4host\0"s, false, 0, ""},
      {"16 bytes behind the type of names", "\0\0\0\3"s + head_v6.substr(4), true, 22,
       "2001:db8::5"},
      {"an unknown type that long", "\0\0\0\7"s + head_v6.substr(4), true, 22, "2001:db8::5"},
      {"an unknown type, shorter", "\0\0\0\7"s + head_v6.substr(5), false, 0, ""},
      {"nothing", "", false, 0, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(has_relay_header(bytes_of(c.datagram)), c.from_client) << c.why;
    const auto header = read_relay_header(bytes_of(c.datagram));
    ASSERT_EQ(header.has_value(), c.size != 0) << c.why;
    if (!header) continue;
    EXPECT_EQ(header->size, c.size) << c.why;
    const SocketAddress expected = *parse_address(c.address, header->address.port());
    EXPECT_EQ(endpoint_key(header->address, 0), endpoint_key(expected, 0)) << c.why;
  }
  for (const auto& [head, fragment] :
       {std::pair{"\0\0\0"s, false}, {"\0\0\1"s, true}, {"\0\0"s, false}}) {
    EXPECT_EQ(is_fragment(bytes_of(head)), fragment) << head.size();
  }
}

TEST(HttpUdpFrame, LengthsFitTheirField) {
  const SocketAddress v4 = *parse_address("1.2.3.4", 53);
  const SocketAddress v6 = *parse_address("2001:db8::5", 8080);
  const struct {
    const SocketAddress* destination;
    std::size_t longest;  // payload
    std::string header;
  } cases[] = {{&v4, 65525, head_v4}, {&v6, 65513, head_v6}, {nullptr, 65535, ""}};
  for (const auto& c : cases) {
    std::array<std::uint8_t, max_frame_head> room{};
    const std::size_t size = length_size + c.header.size();
    ASSERT_EQ(write_frame_head(room, c.destination, c.longest), size);
    EXPECT_EQ(text_of(Bytes(room).last(size)), "\xff\xff" + c.header) << "in any byte order";
    EXPECT_EQ(write_frame_head(room, c.destination, c.longest + 1), 0U);
  }
  EXPECT_EQ(first_frame(bytes_of(with_length(""))).size, 0U) << "two bytes wait, even for none";
  EXPECT_EQ(first_frame(bytes_of(with_length("") + "x")).size, 2U);
}

TEST(HttpUdpRequest, Templates) {
  const struct {
    const char* why;
    std::string_view header;
    std::string_view host;
    std::string_view request;
  } cases[] = {
      {"placeholders", "[M] [url][U] [V]\r\nHost: [H]\r\n\r\n", "h",
       "CONNECT // HTTP/1.1\r\nHost: h\r\nZeltProxyType: httpUDP\r\n\r\n"},
      {"a host may bring placeholders, behind its turn", "[H] [V]\r\n\r\n", "[V][M]",
       "[V]CONNECT HTTP/1.1\r\nZeltProxyType: httpUDP\r\n\r\n"},
      {"only the first value counts", "a b\nZeltProxyType: a\r\nZeltProxyType: b\r\n\r\n", "",
       "httpUDP b\nZeltProxyType: httpUDP\r\nZeltProxyType: b\r\n\r\n"},
      {"an empty value is replaced nowhere", "a\nZeltProxyType: \r\n\r\n", "",
       "a\nZeltProxyType: \r\n\r\n"},
      {"no empty line, no header", "a b", "", "a b"},
  };
  for (const auto& c : cases) {
    TunnelRequest request;
    ASSERT_EQ(request.build({.header = c.header, .host = c.host}), TunnelRequest::Result::done);
    EXPECT_EQ(request.view(), c.request) << c.why;
  }
}

TEST(HttpUdpTunnel, TheQueueDropsTheNewest) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
  static const auto prepared = tunnels_prepare({});
  ASSERT_EQ(prepared, TunnelRequest::Result::done);
  global.tunnel_key = httpmod::derive_tunnel_key("a fairly long password");
  UdpClient client;
  client.upstream.fd = ends[0];
  client.upstream.state = tcp::LinkState::connected;
  client.upstream.tunnel_state = tcp::TunnelState::open;
  client.writable = false;
  std::string queued;
  for (int i = 0; i < 400; ++i) {
    const std::string datagram = with_length(std::string(1000, static_cast<char>('a' + i % 26)));
    tunnel_queue(client, bytes_of(datagram));
    if (queued.size() + datagram.size() <= queue_limit) queued += datagram;
  }
  EXPECT_EQ(client.pending(), queued.size());
  std::string sent;
  while (client.pending() != 0) {
    client.writable = true;
    ASSERT_TRUE(tunnel_send(client));
    std::string piece(1 << 20, '\0');
    const ssize_t got = recv(ends[1], piece.data(), piece.size(), 0);
    ASSERT_GT(got, 0);
    sent.append(piece, 0, static_cast<std::size_t>(got));
  }
  // Enciphered as one stream, although some datagrams were dropped from it.
  EXPECT_EQ(httpmod::tunnel_decode(sent, global.tunnel_key, 0), client.send_key);
  EXPECT_EQ(sent, queued);
  global.tunnel_key = {};
  for (const int end : ends) (void)close(end);
}

}  // namespace
}  // namespace vrox::httpudp
