// The handshakes with upstream proxies, over real TCP connections: peeking and
// discarding work on nothing else.
#include "tcp/handshake.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "main/buffer.h"
#include "tcp/upstream.h"
#include "tcp_pair.h"

namespace vrox::tcp {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr std::string_view payload = "\x05\x00payload\r\n\r\n"sv;  // like a reply, but nobody's

// An upstream and its proxy's end.
class Pair {
 public:
  Pair() {
    EXPECT_TRUE(dial(upstream, listener_.address(), false));
    proxy = listener_.accept_one();
    set_no_delay(proxy);
    pollfd writable{.fd = upstream.fd, .events = POLLOUT, .revents = 0};
    EXPECT_EQ(poll(&writable, 1, 5000), 1);
    upstream.state = LinkState::connected;
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    (void)close(proxy);
    (void)close(upstream.fd);
  }
  void say(const std::string& text) {
    send_all(proxy, text);
    await_bytes(upstream.fd, text.size());
  }
  void end() {
    EXPECT_EQ(shutdown(proxy, SHUT_WR), 0);
    pollfd seen{.fd = upstream.fd, .events = POLLRDHUP, .revents = 0};
    EXPECT_EQ(poll(&seen, 1, 5000), 1);
  }

  Upstream upstream;
  int proxy = -1;

 private:
  TcpListener listener_;
};

const std::string v6_destination = "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x07"s;
const std::string v4_request = "\x05\x01\x00\x01\x0a\x00\x00\x01\x01\xbb"s;
const std::string v6_request = "\x05\x01\x00\x04"s + v6_destination + "\x01\xbb";
const std::string login = "\x01\x04user\x04pass"s;
const std::string v4_reply = "\x05\x00\x00\x01\x01\x02\x03\x04\x05\x06"s;
const std::string v6_reply = "\x05\x00\x00\x04"s + std::string(16, 'a') + "pp";
const std::string plain = "\x05\x01\x00"s;
const std::string offers = "\x05\x02\x00\x02"s;

const struct Dialogue {
  const char* why;
  std::string auth;
  const char* address;
  std::vector<std::pair<std::string, std::string>> parts;  // from the client, from the proxy
} dialogues[] = {
    {"IPv6 destination", "", "2001:db8::7", {{plain, "\x05\x00"s}, {v6_request, v4_reply}}},
    {"credentials",
     login,
     "10.0.0.1",
     {{offers, "\x05\x02"s}, {login, "\x01\x00"s}, {v4_request, v4_reply}}},
    {"a refusal of the credentials is not looked at",
     login,
     "10.0.0.1",
     {{offers, "\x05\x02"s}, {login, "\x01\x01"s}, {v4_request, v6_reply}}},
    {"nor one of the methods or of the request",
     "",
     "10.0.0.1",
     {{plain, "\x05\xff"s}, {v4_request, "\x05\x05\x00\x03"s + std::string(6, '\0')}}},
};

TEST(Socks5Client, RepliesInSingleBytes) {
  for (const Dialogue& dialogue : dialogues) {
    SCOPED_TRACE(dialogue.why);
    Pair pair;
    const SocketAddress target = parse_address(dialogue.address, 443).value();
    const auto step = [&] { return socks5_client_step(pair.upstream, dialogue.auth, target); };
    Handshake result = step();
    for (const auto& [asked, reply] : dialogue.parts) {
      await_bytes(pair.proxy, asked.size());
      EXPECT_EQ(read_there(pair.proxy), asked);
      for (std::size_t i = 0; i < reply.size(); ++i) {
        ASSERT_EQ(result, Handshake::readable) << "before " << i;
        EXPECT_EQ(step(), Handshake::readable) << "nothing has come";
        send_all(pair.proxy, reply.substr(i, 1));
        await_bytes(pair.upstream.fd, i + 1);  // what came stays in the socket
        result = step();
      }
    }
    EXPECT_EQ(result, Handshake::done);
  }
}

TEST(Socks5Client, RepliesAheadOfTheirRequests) {
  for (const Dialogue& dialogue : dialogues) {
    SCOPED_TRACE(dialogue.why);
    Pair pair;
    std::string all;
    for (const auto& part : dialogue.parts) all += part.second;
    pair.say(all + std::string(payload));
    const SocketAddress target = parse_address(dialogue.address, 443).value();
    EXPECT_EQ(socks5_client_step(pair.upstream, dialogue.auth, target), Handshake::done);
    EXPECT_EQ(pair.upstream.socks5_state, Socks5State::done);
    EXPECT_EQ(read_there(pair.upstream.fd), payload) << "it belongs to the client";
  }
}

// The end behind every proper part of what a proxy says, known before or after
// that part was looked at.
TEST(Socks5Client, AnEndInsideAReplyFails) {
  const SocketAddress target = parse_address("10.0.0.1", 443).value();
  const std::string whole = "\x05\x02\x01\x00"s + v6_reply;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    for (const bool looks_first : {false, true}) {
      Pair pair;
      pair.say(whole.substr(0, length));
      if (looks_first) {
        EXPECT_EQ(socks5_client_step(pair.upstream, login, target), Handshake::readable);
      }
      pair.end();
      EXPECT_EQ(socks5_client_step(pair.upstream, login, target), Handshake::failed) << length;
    }
  }
}

TEST(TunnelClient, RepliesEndWhereTheirHeadEnds) {
  const struct {
    const char* why;
    std::string reply;
    bool cut;  // still the same when it comes in single bytes
  } cases[] = {
      {"another line's end in the head", "HTTP/1.1 200\nX: a\rb\n \n\r\n", true},
      {"lines that end without CR", "HTTP/1.0 200 OK\nX: y\n\n", true},
      {"one byte more than the mark, whatever it is", "HTTP/1.1 200 OK\n\rZ", true},
      {"longer than one read", "HTTP/1.1 200 OK\r\nX: " + std::string(5000, 'x') + "\r\n\r\n",
       false},
      {"the mark between two reads", "HTTP" + std::string(506, 'x') + "\r\n\r\n", true},
      {"no HTTP, but a head's end", "SSH-2.0\r\n\r\n", false},
  };
  for (const auto& c : cases) {
    for (const bool bytewise : {false, true}) {
      if (bytewise && !c.cut) continue;
      SCOPED_TRACE(std::string(c.why) + (bytewise ? ", bytewise" : ""));
      Pair pair;
      Buffer request;
      ASSERT_TRUE(request.assign("CONNECT a:1 HTTP/1.1\r\n\r\n"));
      EXPECT_EQ(tunnel_client_step(pair.upstream, request), Handshake::readable);
      await_bytes(pair.proxy, 24);
      EXPECT_EQ(read_there(pair.proxy), "CONNECT a:1 HTTP/1.1\r\n\r\n");
      for (std::size_t i = 0; bytewise && i + 1 < c.reply.size(); ++i) {
        pair.say(c.reply.substr(i, 1));
        ASSERT_EQ(tunnel_client_step(pair.upstream, request), Handshake::readable) << i;
      }
      const std::string rest =
          (bytewise ? c.reply.substr(c.reply.size() - 1) : c.reply) + std::string(payload);
      pair.say(rest);
      EXPECT_EQ(tunnel_client_step(pair.upstream, request), Handshake::done);
      EXPECT_EQ(pair.upstream.tunnel_state, TunnelState::open);
      EXPECT_EQ(read_there(pair.upstream.fd), payload);
    }
  }
}

TEST(TunnelClient, OtherRepliesOpenItWithWhatHasCome) {
  const std::pair<std::string, std::size_t> cases[] = {
      {"\0"s, short_answer},
      {"SSH-2.0-x\r\n"s, short_answer},
      {"HTTq"s, short_answer},
      {std::string(512, 'x'), short_answer},
      {std::string(2048, 'x'), long_answer},
  };
  for (const auto& [reply, one_read] : cases) {
    Pair pair;
    Buffer request;
    ASSERT_TRUE(request.assign("CONNECT"));
    EXPECT_EQ(tunnel_client_step(pair.upstream, request, one_read), Handshake::readable);
    pair.say(reply + (reply.size() == one_read ? std::string(payload) : ""));
    EXPECT_EQ(tunnel_client_step(pair.upstream, request, one_read), Handshake::done) << reply;
    EXPECT_EQ(read_there(pair.upstream.fd), reply.size() == one_read ? payload : "");
  }
}

}  // namespace
}  // namespace vrox::tcp
