#include <gtest/gtest.h>

#include <string>

#include "bytes.h"
#include "socks5/global.h"
#include "socks5/handshake.h"
#include "tcp/global.h"
#include "tcp/upstream.h"
#include "tcp_pair.h"

namespace vrox::socks5 {
namespace {

using std::string_literals::operator""s;

const std::string greeting = "\5\1\0"s;
const std::string to_ipv4 = "\5\1\0\1\1\2\3\4\0\x50"s;
const std::string to_name = "\5\1\0\3\6a.test\0\x50"s;
const std::string accepted = "\5\0\0\1\0\0\0\0\0\0"s;

class Socks5 : public ::testing::Test {
 protected:
  void SetUp() override { tcp::global.listen_fd = 1000000; }  // only whether there is one counts
  void TearDown() override {
    global.credentials = {};
    tcp::global.listen_fd = -1;
  }

  // A client and the slot that serves it.
  class Pair {
   public:
    Pair() {
      const TcpListener listener;
      client = socket(AF_INET, SOCK_STREAM, 0);
      EXPECT_EQ(connect(client, listener.address().raw(), listener.address().length()), 0);
      conn.fd = accept4(listener.fd(), nullptr, nullptr, SOCK_NONBLOCK);
      tcp::set_no_delay(client);
    }
    ~Pair() {
      (void)close(client);
      (void)close(conn.fd);
    }
    // On the loopback what is sent has arrived when the call returns.
    Verdict send(const std::string& bytes) {
      send_all(client, bytes);
      return step();
    }
    Verdict half_close() {
      (void)shutdown(client, SHUT_WR);
      return step();
    }
    Verdict step() { return socks5_handshake_step(conn, 7); }

    Socks5Conn conn;
    int client = -1;
  };
};

TEST_F(Socks5, AHandshakeTakesNoByteOfThePayload) {
  const std::string to_ipv6 = "\5\1\0\4\xfd\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\1\xbb"s;
  const struct {
    const char* why;
    std::string bytes;
    Verdict verdict;
  } cases[] = {
      {"IPv4", greeting + to_ipv4, Verdict::join},
      {"IPv6", greeting + to_ipv6, Verdict::join},
      {"a name", greeting + to_name, Verdict::resolve},
      {"many methods", "\5\5\0\1\2\3\4"s + to_ipv4, Verdict::join},
      {"methods that say no", "\5\1\xff"s + to_ipv4, Verdict::join},
  };
  for (const auto& c : cases) {
    Pair whole;
    EXPECT_EQ(whole.send(c.bytes + "payload"), c.verdict) << c.why;
    EXPECT_EQ(read_there(whole.client), "\5\0"s + accepted) << c.why;
    EXPECT_EQ(read_there(whole.conn.fd), "payload") << c.why;

    Pair dribbled;  // the first three bytes are the shortest greeting
    Verdict verdict = dribbled.send(c.bytes.substr(0, 3));
    for (std::size_t i = 3; i < c.bytes.size(); ++i) {
      ASSERT_EQ(verdict, Verdict::keep) << c.why << " before byte " << i;
      verdict = dribbled.send(c.bytes.substr(i, 1));
    }
    EXPECT_EQ(verdict, c.verdict) << c.why;
    EXPECT_EQ(dribbled.conn.target.port_be(), whole.conn.target.port_be()) << c.why;
    EXPECT_EQ(dribbled.conn.target.uniform(), whole.conn.target.uniform()) << c.why;
  }
}

TEST_F(Socks5, AClientThatGivesUpWhileItsNameIsResolved) {
  // Some count the zero byte that ends the name in their memory.
  for (const std::string& request : {to_name, "\5\1\0\3\7a.test\0\0\x50"s}) {
    Pair name;
    ASSERT_EQ(name.send(greeting + request), Verdict::resolve);
    EXPECT_EQ(name.conn.target.port(), 80);
    EXPECT_EQ(text_of(std::span(name.conn.query).first(name.conn.query_length)),
              "\0\7\1\0\0\1\0\0\0\0\0\0\1a\4test\0\0\1\0\1"s);
    EXPECT_EQ(name.step(), Verdict::keep);
    EXPECT_EQ(name.half_close(), Verdict::end);
  }

  Pair eager;
  ASSERT_EQ(eager.send(greeting + to_name + "payload"), Verdict::resolve);
  EXPECT_EQ(eager.half_close(), Verdict::keep) << "the payload is to be relayed";
}

TEST_F(Socks5, WhatIsWrongEndsTheConnection) {
  const struct {
    const char* why;
    std::string bytes;
    std::string replies;
  } cases[] = {
      {"a greeting of two bytes", "\5\1"s, ""},
      {"an unknown address type is accepted first", greeting + "\5\1\0\2\1\2\3\4\0\x50"s,
       "\5\0"s + accepted},
      {"so is a name that cannot be asked for",
       greeting + "\5\1\0\3\xff"s + std::string(255, 'x') + "\0\x50"s, "\5\0"s + accepted},
  };
  for (const auto& c : cases) {
    Pair pair;
    EXPECT_EQ(pair.send(c.bytes), Verdict::end) << c.why;
    EXPECT_EQ(read_there(pair.client), c.replies) << c.why;
  }
  Pair cut;
  EXPECT_EQ(cut.send(greeting + to_ipv4.substr(0, 7)), Verdict::keep);
  EXPECT_EQ(cut.half_close(), Verdict::end);
}

}  // namespace
}  // namespace vrox::socks5
