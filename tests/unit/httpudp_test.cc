#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bytes.h"
#include "httpmod/cipher.h"
#include "httpudp/frame.h"
#include "httpudp/global.h"
#include "httpudp/request.h"
#include "httpudp/tunnel.h"
#include "tcp/module.h"

namespace vrox::httpudp {
namespace {

using std::string_literals::operator""s;

const std::string head_v4 = "\0\0\0\1\1\2\3\4\0\x35"s;
const std::string head_v6 = "\0\0\0\4\x20\1\r\xb8\0\0\0\0\0\0\0\0\0\0\0\5\x1f\x90"s;

// ---- frames -------------------------------------------------------------------

TEST(HttpUdpFrame, NeedsEveryByte) {
  const std::string whole = with_length(head_v4 + "payload");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(first_frame(bytes_of(whole).first(length)).size, 0U) << "cut at " << length;
  }
  const std::string joined = whole + with_length("");
  const Frame first = first_frame(bytes_of(joined));
  EXPECT_EQ(first.size, whole.size());
  EXPECT_EQ(text_of(first.datagram), head_v4 + "payload");
  EXPECT_EQ(first_frame(bytes_of(joined).subspan(first.size)).size, 0U)
      << "two bytes wait, even when they say 0";
  EXPECT_EQ(first_frame(bytes_of(with_length("") + "x")).size, 2U);
}

TEST(HttpUdpFrame, HeadersOfReplies) {
  const struct {
    const char* why;
    std::string datagram;
    std::size_t size;  // 0: it ends inside its header
    const char* address;
  } cases[] = {
      {"IPv4", head_v4 + "x", 10, "1.2.3.4"},
      {"IPv4 cut", head_v4.substr(0, 9), 0, ""},
      {"IPv6", head_v6 + "x", 22, "2001:db8::5"},
      {"IPv6 cut", head_v6.substr(0, 21), 0, ""},
      {"every other type has 16 bytes", "\0\0\0\3"s + head_v6.substr(4), 22, "2001:db8::5"},
      {"an IPv4-mapped address is IPv4",
       "\0\0\0\4"s + std::string(10, '\0') + "\xff\xff\1\2\3\4\0\x35"s, 22, "1.2.3.4"},
  };
  for (const auto& c : cases) {
    const auto header = read_relay_header(bytes_of(c.datagram));
    ASSERT_EQ(header.has_value(), c.size != 0) << c.why;
    if (!header) continue;
    EXPECT_EQ(header->size, c.size) << c.why;
    const SocketAddress expected = *parse_address(c.address, header->address.port());
    EXPECT_EQ(endpoint_key(header->address, 0), endpoint_key(expected, 0)) << c.why;
  }
}

TEST(HttpUdpFrame, WhatTheRelayTakes) {
  const std::string name = "\0\0\0\3\4host\0\x35"s;
  const struct {
    const char* why;
    std::string datagram;
    bool taken;
  } cases[] = {
      {"IPv4 cut", head_v4.substr(0, 9), false},
      {"IPv6 cut", head_v6.substr(0, 21), false},
      {"a name", name, true},
      {"a name cut", name.substr(0, name.size() - 1), false},
      {"16 bytes behind the type of names", "\0\0\0\3\x20"s + head_v6.substr(5), true},
      {"an unknown type that long", "\0\0\0\7"s + head_v6.substr(4), true},
      {"an unknown type, shorter", "\0\0\0\7"s + head_v6.substr(5), false},
      {"nothing", "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(has_relay_header(bytes_of(c.datagram)), c.taken) << c.why;
  }
  EXPECT_FALSE(is_fragment(bytes_of(head_v4)));
  EXPECT_TRUE(is_fragment(bytes_of("\0\0\1"s)));
  EXPECT_FALSE(is_fragment(bytes_of("\0\0"s)));
}

TEST(HttpUdpFrame, Heads) {
  const SocketAddress v4 = *parse_address("1.2.3.4", 53);
  const SocketAddress v6 = *parse_address("2001:db8::5", 8080);
  const struct {
    const char* why;
    const SocketAddress* destination;
    std::size_t payload;
    std::string header;
    std::size_t size;
  } cases[] = {
      {"the longest over IPv4", &v4, 65525, head_v4, 12},
      {"too long over IPv4", &v4, 65526, "", 0},
      {"IPv6", &v6, 0, head_v6, 24},
      {"the longest over IPv6", &v6, 65513, head_v6, 24},
      {"too long over IPv6", &v6, 65514, "", 0},
      {"the length alone", nullptr, 65535, "", 2},
      {"too long", nullptr, 65536, "", 0},
  };
  for (const auto& c : cases) {
    std::array<std::uint8_t, max_frame_head> room{};
    ASSERT_EQ(write_frame_head(room, c.destination, c.payload), c.size) << c.why;
    if (c.size == 0) continue;
    const std::string whole = with_length(c.header + std::string(c.payload, 'x'));
    EXPECT_EQ(text_of(Bytes(room).last(c.size)), whole.substr(0, c.size)) << c.why;
  }
}

// ---- the request -----------------------------------------------------------------

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

// ---- tunnels -----------------------------------------------------------------------

// A client whose tunnel is open, over a connection to this test.
class OpenTunnel {
 public:
  OpenTunnel() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_), 0);
    static const auto prepared = tunnels_prepare({});
    EXPECT_EQ(prepared, TunnelRequest::Result::done);
    replies.clear();
    client.origin = Origin::other;
    client.peer = *parse_address("127.0.0.1", 9);
    client.reply = [](const SocketAddress&, const SocketAddress&, Bytes payload) {
      replies.push_back(text_of(payload));
    };
    client.upstream.fd = ends_[0];
    client.upstream.state = tcp::LinkState::connected;
    client.upstream.tunnel_state = tcp::TunnelState::open;
  }
  ~OpenTunnel() {
    (void)close(ends_[0]);
    (void)close(ends_[1]);
    global.tunnel_key = {};
  }
  // False when the tunnel ended.
  bool bring(std::string_view bytes) {
    EXPECT_EQ(send(ends_[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return tunnel_advance(client, EPOLLIN);
  }
  std::string read_all() {
    std::string all(1 << 20, '\0');
    const ssize_t got = recv(ends_[1], all.data(), all.size(), 0);
    all.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return all;
  }

  UdpClient client;
  static inline std::vector<std::string> replies;

 private:
  int ends_[2];
};

TEST(HttpUdpTunnel, FramesArriveInAnyPieces) {
  const std::string stream = with_length(head_v4 + "one") + with_length(head_v4) +
                             with_length(head_v6 + "other") +
                             with_length(head_v4 + std::string(5000, 'x'));
  const std::vector<std::string> expected{"one", "", std::string(5000, 'x')};
  for (const std::size_t piece : {1UL, 2UL, 3UL, 7UL, 13UL, 1000UL, stream.size()}) {
    OpenTunnel tunnel;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      ASSERT_TRUE(tunnel.bring(std::string_view(stream).substr(at, piece))) << piece;
    }
    EXPECT_EQ(OpenTunnel::replies, expected) << "in pieces of " << piece;
    EXPECT_EQ(tunnel.client.received.capacity(), 0U) << "memory only where something waits";
  }
}

TEST(HttpUdpTunnel, TheQueueDropsTheNewest) {
  OpenTunnel tunnel;
  UdpClient& client = tunnel.client;
  global.tunnel_key = httpmod::derive_tunnel_key("a fairly long password");
  client.writable = false;
  std::string queued;
  for (int i = 0; i < 400; ++i) {
    const std::string datagram = with_length(std::string(1000, static_cast<char>('a' + i % 26)));
    tunnel_queue(client, bytes_of(datagram));
    if (queued.size() + datagram.size() <= queue_limit) queued += datagram;
  }
  EXPECT_EQ(client.pending(), queued.size());
  client.writable = true;
  std::string sent;
  while (client.pending() != 0) {
    ASSERT_TRUE(tunnel_send(client));
    client.writable = true;
    std::string piece = tunnel.read_all();
    sent += piece;
  }
  // Enciphered as one stream, although some datagrams were dropped from it.
  const auto key = httpmod::tunnel_decode(sent, global.tunnel_key, 0);
  EXPECT_EQ(key, client.send_key);
  EXPECT_EQ(sent, queued);
}

}  // namespace
}  // namespace vrox::httpudp
