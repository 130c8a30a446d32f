// What a SOCKS5 client sends, in pieces: each is a length byte and that many
// bytes. The first byte chooses whether credentials are asked for.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "check.h"
#include "httpudp/global.h"
#include "socks5/global.h"
#include "socks5/handshake.h"
#include "tcp/global.h"

using vrox::fuzz::check;

namespace {

using vrox::socks5::Verdict;

std::size_t unread(int fd) {
  std::array<std::uint8_t, 1024> bytes{};
  std::size_t total = 0;
  for (ssize_t length = 0; (length = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0;) {
    total += static_cast<std::size_t>(length);
  }
  return total;
}

// Takes pieces until there is a verdict; the last verdict and what was said.
Verdict feed(vrox::socks5::Socks5Conn& conn, int client, std::span<const std::uint8_t> input,
             std::vector<std::uint8_t>& said) {
  Verdict verdict = Verdict::keep;
  while (verdict == Verdict::keep && !input.empty()) {
    const std::size_t length = std::min<std::size_t>(input[0], input.size() - 1);
    check(send(client, input.data() + 1, length, 0) == static_cast<ssize_t>(length));
    said.insert(said.end(), input.begin() + 1, input.begin() + 1 + static_cast<ssize_t>(length));
    input = input.subspan(1 + length);
    verdict = vrox::socks5::socks5_handshake_step(conn, 1);
    if (conn.state == vrox::socks5::Socks5Conn::State::associated) break;
  }
  return verdict;
}

void check_target(const vrox::SocketAddress& target, std::span<const std::uint8_t> request) {
  const std::size_t size = request[3] == 1 ? 4 : 16;
  const auto address = target.uniform();
  check(std::equal(address.begin(), address.begin() + size, request.begin() + 4));
  check(target.port() == request[4 + size] * 256 + request[5 + size]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  vrox::tcp::global.listen_fd = 1;
  vrox::httpudp::global.socks5_fd = 1;
  vrox::socks5::global.credentials = (data[0] & 1) != 0 ? "\1\1u\1p" : "";
  std::array<int, 2> ends{};
  check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) == 0);
  vrox::socks5::Socks5Conn conn;
  conn.fd = ends[0];
  std::vector<std::uint8_t> said;
  const Verdict verdict = feed(conn, ends[1], {data + 1, size - 1}, said);
  check(conn.request_length <= conn.request.size() && conn.query_length <= conn.query.size());
  if (verdict == Verdict::join || verdict == Verdict::resolve) {
    // Greeting, credentials and request are gone, and nothing behind them.
    const std::size_t greeting = std::max<std::size_t>(3, 2U + said[1]);
    const std::size_t before = greeting + vrox::socks5::global.credentials.size();
    check(said.size() - unread(conn.fd) == before + conn.request_length);
    if (verdict == Verdict::join) check_target(conn.target, std::span(said).subspan(before));
  }
  (void)close(ends[0]);
  (void)close(ends[1]);
  return 0;
}
