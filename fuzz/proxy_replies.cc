// What upstream proxies answer, in one piece or in several: each of these is a length
// byte and that many bytes. The first byte chooses the handshake. Nothing is read
// behind a reply.
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "check.h"
#include "main/address.h"
#include "main/buffer.h"
#include "tcp/handshake.h"
#include "tcp/upstream.h"

using vrox::fuzz::check;

namespace {

using vrox::SocketAddress;
using vrox::tcp::Handshake;

constexpr std::string_view login = "\1\1u\1p";

// Real TCP: peeking and discarding work on nothing else.
class Connection {
 public:
  Connection() {
    static const int listener = listen_on_loopback();
    static SocketAddress address;
    socklen_t length = SocketAddress::size;
    check(getsockname(listener, address.raw(), &length) == 0);
    check(vrox::tcp::dial(upstream, address, false));
    proxy = accept(listener, nullptr, nullptr);
    check(proxy != -1);
    vrox::tcp::set_no_delay(proxy);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    const linger reset{.l_onoff = 1, .l_linger = 0};  // or the ports run out
    (void)setsockopt(proxy, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    (void)close(proxy);
    (void)close(upstream.fd);
  }

  vrox::tcp::Upstream upstream;
  int proxy = -1;

 private:
  static int listen_on_loopback() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) == 0 && listen(fd, 8) == 0);
    return fd;
  }
};

std::size_t waiting(int fd) {
  int count = 0;
  check(ioctl(fd, FIONREAD, &count) == 0);
  return static_cast<std::size_t>(count);
}

// Sends a piece and sees it arrive: many small ones wait for an acknowledgement.
void say(const Connection& connection, const std::string& piece) {
  const std::size_t due = waiting(connection.upstream.fd) + piece.size();
  check(send(connection.proxy, piece.data(), piece.size(), 0) ==
        static_cast<ssize_t>(piece.size()));
  while (waiting(connection.upstream.fd) < due) (void)poll(nullptr, 0, 1);
}

// How much of what a SOCKS5 proxy says belongs to the handshake.
std::size_t socks5_due(std::string_view said, bool has_login) {
  std::size_t at = 2;
  if (has_login && said[1] == 2) at += 2;
  return at + (said[at + 3] == 4 ? 22U : 10U);
}

// Likewise of an HTTP proxy. What does not begin like HTTP ends with one read.
std::size_t tunnel_due(std::string_view said, std::size_t one_read) {
  const std::size_t plain = said.find("\n\r");
  const std::size_t bare = said.find("\n\n");  // lines that end without CR
  const std::size_t none = said.starts_with("HTTP") ? said.size() : std::min(said.size(), one_read);
  if (plain < bare) return std::min(plain + 3, none);
  return bare < said.size() ? std::min(bare + 2, none) : none;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 4096) return 0;
  const bool tunnel = (data[0] & 1) != 0;
  const bool has_login = (data[0] & 2) != 0;
  const bool one_piece = (data[0] & 8) != 0;
  const std::size_t one_read =
      (data[0] & 16) != 0 ? vrox::tcp::long_answer : vrox::tcp::short_answer;
  const SocketAddress target =
      *vrox::parse_address((data[0] & 4) != 0 ? "2001:db8::1" : "10.0.0.1", 443);
  vrox::Buffer request;
  check(request.assign("CONNECT"));
  Connection connection;
  const auto step = [&] {
    return tunnel
               ? vrox::tcp::tunnel_client_step(connection.upstream, request, one_read)
               : vrox::tcp::socks5_client_step(connection.upstream, has_login ? login : "", target);
  };
  std::string said;
  Handshake result = step();
  for (std::size_t at = 1; result == Handshake::readable && at < size;) {
    const std::size_t begin = one_piece ? at : at + 1;
    at = one_piece ? size : std::min(begin + data[at], size);
    const std::string piece(data + begin, data + at);
    if (piece.empty()) continue;
    say(connection, piece);
    said += piece;
    result = step();
  }
  check(result != Handshake::writable);
  if (result == Handshake::done) {
    const std::size_t due = tunnel ? tunnel_due(said, one_read) : socks5_due(said, has_login);
    check(said.size() - waiting(connection.upstream.fd) == due);
    check(step() == Handshake::done);
  } else if (result == Handshake::readable) {  // an end in the middle
    pollfd ended{.fd = connection.upstream.fd, .events = POLLRDHUP, .revents = 0};
    check(shutdown(connection.proxy, SHUT_WR) == 0 && poll(&ended, 1, 5000) == 1);
    check(step() == Handshake::failed);
  }
  return 0;
}
