#include "tcp/handshake.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "main/loop.h"

namespace vrox::tcp {

namespace {

constexpr std::uint8_t socks_version = 5;
constexpr std::uint8_t method_password = 2;
constexpr std::uint8_t command_connect = 1;
constexpr std::uint8_t address_v4 = 1;
constexpr std::uint8_t address_v6 = 4;
constexpr std::array<char, 4> greeting_with_password{5, 2, 0, 2};
constexpr std::array<char, 3> greeting_plain{5, 1, 0};

constexpr std::size_t method_answer = 2;
constexpr std::size_t credentials_answer = 2;
constexpr std::size_t reply_v4 = 10;
constexpr std::size_t reply_v6 = 22;
constexpr std::size_t reply_address_type = 3;  // offset

template <std::size_t N>
std::string_view text(const std::array<char, N>& bytes) {
  return {bytes.data(), bytes.size()};
}

bool would_wait(int error) { return error == EAGAIN || error == ENOTCONN; }

// Sends a whole handshake message. Into the empty buffer of a new connection it
// fits or the connection is no good.
enum class Sent : std::uint8_t { whole, later, failed };
Sent send_message(Upstream& upstream, std::string_view message) {
  const ssize_t sent = upstream_write(upstream, message);
  if (sent == static_cast<ssize_t>(message.size())) return Sent::whole;
  if (sent == -1 && (would_wait(errno) || errno == EINPROGRESS)) return Sent::later;
  return Sent::failed;
}

// What has come, up to the size of `bytes`, left in the socket. Nothing when it
// would have to wait.
enum class Came : std::uint8_t { some, later, failed };
Came peek(const Upstream& upstream, std::span<char> bytes, std::size_t& count) {
  ssize_t got = -1;
  do {
    got = recv(upstream.fd, bytes.data(), bytes.size(), MSG_PEEK);
  } while (got == -1 && errno == EINTR);
  if (got == -1 && would_wait(errno)) return Came::later;
  if (got < 1) return Came::failed;
  count = static_cast<std::size_t>(got);
  return Came::some;
}

bool consume(const Upstream& upstream, std::size_t count) {
  return discard_input(upstream.fd, count) == static_cast<ssize_t>(count);
}

// `count` bytes have come of a reply, and that is not all of it. The rest follows,
// unless the proxy has closed: its end stands behind the bytes that were left in
// the socket. More that came just now brings an edge of its own.
Came incomplete(const Upstream& upstream, std::size_t count) {
  pollfd ask{.fd = upstream.fd, .events = POLLRDHUP, .revents = 0};
  if (poll(&ask, 1, 0) < 1) return Came::later;
  std::array<char, reply_v6> bytes{};
  std::size_t now = 0;
  return peek(upstream, bytes, now) == Came::some && now > count ? Came::later : Came::failed;
}

// The reply that is due, read whole or not at all.
Came read_reply(Upstream& upstream, std::span<char> reply) {
  std::size_t count = 0;
  const Came came = peek(upstream, reply, count);
  if (came != Came::some) return came;
  if (count < reply.size()) return incomplete(upstream, count);
  return consume(upstream, count) ? Came::some : Came::failed;
}

// Acknowledgements travel with the next message instead of by themselves.
void delay_acknowledgement(int fd) {
  const int off = 0;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
}

// An answer that takes a further wait, or a failure.
Handshake waiting(Came came) {
  return came == Came::later ? Handshake::readable : Handshake::failed;
}
Handshake waiting(Sent sent) {
  return sent == Sent::later ? Handshake::writable : Handshake::failed;
}

Handshake send_greeting(Upstream& upstream, std::string_view auth) {
  const std::string_view greeting =
      auth.empty() ? text(greeting_plain) : text(greeting_with_password);
  const Sent sent = send_message(upstream, greeting);
  if (sent != Sent::whole) return waiting(sent);
  upstream.socks5_state = Socks5State::method;
  return Handshake::readable;
}

// The request for the target, in answer to the proxy: it must go out at once.
Handshake send_request(Upstream& upstream, const SocketAddress& target) {
  std::array<char, reply_v6> request{socks_version, command_connect, 0};
  std::size_t length = 4;
  const auto put = [&](std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) request[length++] = static_cast<char>(byte);
  };
  if (target.family() == AF_INET6) {
    request[3] = address_v6;
    put(target.uniform());
  } else {
    request[3] = address_v4;
    put(target.ipv4());
  }
  const std::uint16_t port = target.port();
  put(std::array{static_cast<std::uint8_t>(port >> 8), static_cast<std::uint8_t>(port & 0xff)});
  if (send_message(upstream, {request.data(), length}) != Sent::whole) return Handshake::failed;
  upstream.socks5_state = Socks5State::reply;
  return Handshake::readable;
}

Handshake answer_method(Upstream& upstream, std::string_view auth, const SocketAddress& target) {
  std::array<char, method_answer> answer{};
  delay_acknowledgement(upstream.fd);
  const Came came = read_reply(upstream, answer);
  if (came != Came::some) return waiting(came);
  upstream.state = LinkState::connected;
  if (answer[1] != method_password) return send_request(upstream, target);
  if (auth.empty() || send_message(upstream, auth) != Sent::whole) return Handshake::failed;
  upstream.socks5_state = Socks5State::credentials;
  return Handshake::readable;
}

// A refusal shows in the next reply: the status is not examined.
Handshake after_credentials(Upstream& upstream, const SocketAddress& target) {
  std::array<char, credentials_answer> answer{};
  delay_acknowledgement(upstream.fd);
  const Came came = read_reply(upstream, answer);
  return came == Came::some ? send_request(upstream, target) : waiting(came);
}

Handshake read_final_reply(Upstream& upstream) {
  std::array<char, reply_v6> reply{};
  std::size_t count = 0;
  const Came came = peek(upstream, reply, count);
  if (came != Came::some) return waiting(came);
  if (count <= reply_address_type) return waiting(incomplete(upstream, count));
  const std::size_t due = reply[reply_address_type] == address_v6 ? reply_v6 : reply_v4;
  if (count < due) return waiting(incomplete(upstream, count));
  if (!consume(upstream, due)) return Handshake::failed;
  upstream.socks5_state = Socks5State::done;
  return Handshake::done;
}

constexpr std::string_view http_prefix = "HTTP";
// A proxy that never ends its head would keep the loop and its others waiting.
constexpr std::uint32_t max_reply_head = 64 * 1024;

// Counts what of the reply belongs to the proxy, and whether it ends there. A
// reply that begins like HTTP ends with its head ("\n\r" and one byte more); any
// other with what has come of it, unless a head's end stands in it.
struct ReplyPart {
  std::size_t count = 0;
  bool ends = false;
};
ReplyPart scan_reply(Upstream& upstream, std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char byte = bytes[i];
    if (upstream.reply_prefix < http_prefix.size()) {
      const bool fits = byte == http_prefix[upstream.reply_prefix];
      upstream.reply_prefix =
          fits ? static_cast<std::uint8_t>(upstream.reply_prefix + 1) : UINT8_MAX;
    }
    if (upstream.reply_end == 2) return {i + 1, true};
    if (byte == '\n') {
      if (upstream.reply_end == 1) return {i + 1, true};  // lines that end without CR
      upstream.reply_end = 1;
    } else {
      upstream.reply_end = upstream.reply_end == 1 && byte == '\r' ? 2 : 0;
    }
  }
  return {bytes.size(), upstream.reply_prefix == UINT8_MAX};
}

Handshake send_tunnel_request(Upstream& upstream, Buffer& request) {
  const ssize_t sent = upstream_write(upstream, request.view());
  if (sent == -1 && (would_wait(errno) || errno == EINPROGRESS)) return Handshake::writable;
  if (sent < 1) return Handshake::failed;
  request.erase_front(static_cast<std::size_t>(sent));
  if (!request.empty()) return Handshake::writable;
  upstream.tunnel_state = TunnelState::reply;
  return Handshake::readable;
}

Handshake read_tunnel_reply(Upstream& upstream, std::size_t one_read) {
  for (;;) {
    std::array<char, long_answer> bytes{};
    std::size_t count = 0;
    const Came came = peek(upstream, std::span(bytes).first(one_read), count);
    if (came != Came::some) return waiting(came);
    const ReplyPart part = scan_reply(upstream, {bytes.data(), count});
    if (!consume(upstream, part.count)) return Handshake::failed;
    upstream.reply_length += static_cast<std::uint32_t>(part.count);
    if (!part.ends && upstream.reply_length > max_reply_head) return Handshake::failed;
    if (!part.ends) continue;
    upstream.state = LinkState::connected;
    upstream.tunnel_state = TunnelState::open;
    return Handshake::done;
  }
}

Handshake socks5_step(Upstream& upstream, std::string_view auth, const SocketAddress& target) {
  switch (upstream.socks5_state) {
    case Socks5State::greeting:
      return send_greeting(upstream, auth);
    case Socks5State::method:
      return answer_method(upstream, auth, target);
    case Socks5State::credentials:
      return after_credentials(upstream, target);
    case Socks5State::reply:
      return read_final_reply(upstream);
    case Socks5State::done:
      break;
  }
  return Handshake::done;
}

Handshake tunnel_step(Upstream& upstream, Buffer& request, std::size_t one_read) {
  switch (upstream.tunnel_state) {
    case TunnelState::request:
      return send_tunnel_request(upstream, request);
    case TunnelState::reply:
      return read_tunnel_reply(upstream, one_read);
    case TunnelState::open:
      break;
  }
  return Handshake::done;
}

}  // namespace

// What was sent may have been answered already, by a proxy that does not wait to
// be asked: no edge tells of that again, so the answer is tried for at once.

Handshake socks5_client_step(Upstream& upstream, std::string_view auth,
                             const SocketAddress& target) {
  for (;;) {
    const Socks5State before = upstream.socks5_state;
    const Handshake result = socks5_step(upstream, auth, target);
    if (result != Handshake::readable || upstream.socks5_state == before) return result;
  }
}

Handshake tunnel_client_step(Upstream& upstream, Buffer& request, std::size_t one_read) {
  for (;;) {
    const TunnelState before = upstream.tunnel_state;
    const Handshake result = tunnel_step(upstream, request, one_read);
    if (result != Handshake::readable || upstream.tunnel_state == before) return result;
  }
}

}  // namespace vrox::tcp
