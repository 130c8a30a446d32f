// The answers of HTTP proxies in one piece. What they and SOCKS5 proxies say in many
// pieces is a matter of the fuzz target, and of the system tests.
#include "tcp/handshake.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "main/buffer.h"
#include "tcp/upstream.h"

namespace vrox::tcp {
namespace {

using namespace std::string_literals;

// An upstream and its proxy's end, over real TCP: peeking and discarding work on
// nothing else.
class Pair {
 public:
  Pair() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SocketAddress address = parse_address("127.0.0.1", 0).value();
    socklen_t length = address.length();
    EXPECT_EQ(bind(listener, address.raw(), length), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, address.raw(), &length), 0);
    EXPECT_TRUE(dial(upstream, address, false));
    proxy = accept(listener, nullptr, nullptr);
    (void)close(listener);
    upstream.state = LinkState::connected;
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    (void)close(proxy);
    (void)close(upstream.fd);
  }

  void say(const std::string& text) const {
    EXPECT_EQ(send(proxy, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    int there = 0;
    for (int tries = 0; static_cast<std::size_t>(there) < text.size() && tries < 5000; ++tries) {
      EXPECT_EQ(ioctl(upstream.fd, FIONREAD, &there), 0);
      if (tries > 500) (void)poll(nullptr, 0, 1);
    }
  }

  Upstream upstream;
  int proxy = -1;
};

std::string read_there(int fd) {
  std::string all(1 << 16, '\0');
  const ssize_t got = recv(fd, all.data(), all.size(), MSG_DONTWAIT);
  all.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return all;
}

TEST(TunnelClient, AnswersEndWhereTheirHeadEnds) {
  const std::string payload = "\x05\0payload\r\n\r\n"s;  // like an answer, but nobody's
  const struct {
    const char* why;
    std::string answer;
    std::size_t one_read = short_answer;
  } cases[] = {
      {"another line's end in the head", "HTTP/1.1 200\nX: a\rb\n \n\r\n"},
      {"longer than one read", "HTTP/1.1 200 OK\r\nX: " + std::string(5000, 'x') + "\r\n\r\n"},
      {"the mark between two reads", "HTTP" + std::string(506, 'x') + "\r\n\r\n"},
      {"no HTTP, but a head's end", "SSH-2.0\r\n\r\n"},
      {"no HTTP: what one read brings", std::string(512, 'x')},
      {"or a longer read", std::string(2048, 'x'), long_answer},
  };
  for (const auto& c : cases) {
    Pair pair;
    Buffer request;
    ASSERT_TRUE(request.assign("CONNECT"));
    EXPECT_EQ(tunnel_client_step(pair.upstream, request, c.one_read), Handshake::readable) << c.why;
    pair.say(c.answer + payload);
    EXPECT_EQ(read_there(pair.proxy), "CONNECT") << c.why;
    EXPECT_EQ(tunnel_client_step(pair.upstream, request, c.one_read), Handshake::done) << c.why;
    EXPECT_EQ(read_there(pair.upstream.fd), payload) << c.why;
  }
}

}  // namespace
}  // namespace vrox::tcp
