#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "bytes.h"
#include "socks5/handshake.h"
#include "tcp/global.h"

namespace vrox::socks5 {
namespace {

using std::string_literals::operator""s;

const std::string greeting = "\5\1\0"s;
const std::string to_ipv4 = "\5\1\0\1\1\2\3\4\0\x50"s;
const std::string to_name = "\5\1\0\3\6a.test\0\x50"s;

// A client and the slot that serves it.
class Client {
 public:
  Client() {
    tcp::global.listen_fd = 1000000;  // only whether there is one counts
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    conn.fd = ends[0];
    end_ = ends[1];
  }
  ~Client() {
    (void)close(conn.fd);
    (void)close(end_);
    tcp::global.listen_fd = -1;
  }

  Verdict say(std::string_view bytes) {
    EXPECT_EQ(send(end_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return step();
  }
  Verdict half_close() {
    (void)shutdown(end_, SHUT_WR);
    return step();
  }
  Verdict step() { return socks5_handshake_step(conn, 7); }
  std::string heard() const {
    std::string all(100, '\0');
    all.resize(static_cast<std::size_t>(std::max<ssize_t>(0, recv(end_, all.data(), 100, 0))));
    return all;
  }

  Socks5Conn conn;

 private:
  int end_ = -1;
};

TEST(Socks5, WhatCannotBeServedIsAcceptedFirst) {
  const struct {
    const char* why;
    std::string request;
  } cases[] = {
      {"an unknown address type", "\5\1\0\2\1\2\3\4\0\x50"s},
      {"a name that cannot be asked for", "\5\1\0\3\xff"s + std::string(257, 'x')},
  };
  for (const auto& c : cases) {
    Client client;
    EXPECT_EQ(client.say(greeting + c.request), Verdict::end) << c.why;
    EXPECT_EQ(client.heard(), "\5\0\5\0\0\1\0\0\0\0\0\0"s) << c.why;
  }
}

TEST(Socks5, MethodsAndRequestComeTogether) {
  Client client;
  EXPECT_EQ(client.say("\5\5\0\1\2\3\4"s + to_ipv4 + "payload"), Verdict::join);
}

TEST(Socks5, AClientThatGivesUp) {
  // Some count the zero byte that ends the name in their memory.
  for (const std::string& request : {to_name, "\5\1\0\3\7a.test\0\0\x50"s}) {
    Client client;
    ASSERT_EQ(client.say(greeting + request), Verdict::resolve);
    EXPECT_EQ(text_of(std::span(client.conn.query).first(client.conn.query_length)),
              "\0\7\1\0\0\1\0\0\0\0\0\0\1a\4test\0\0\1\0\1"s);
    EXPECT_EQ(client.step(), Verdict::keep);
    EXPECT_EQ(client.half_close(), Verdict::end) << "while its name is resolved";
  }
  Client eager;
  ASSERT_EQ(eager.say(greeting + to_name + "payload"), Verdict::resolve);
  EXPECT_EQ(eager.half_close(), Verdict::keep) << "the payload is to be relayed";
  Client cut;
  EXPECT_EQ(cut.say(greeting + to_ipv4.substr(0, 7)), Verdict::keep);
  EXPECT_EQ(cut.half_close(), Verdict::end) << "inside the request";
}

}  // namespace
}  // namespace vrox::socks5
