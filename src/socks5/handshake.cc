#include "socks5/handshake.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "httpudp/global.h"
#include "socks5/global.h"
#include "tcp/global.h"

namespace vrox::socks5 {

namespace {

using Bytes = std::span<const std::uint8_t>;
using State = Socks5Conn::State;

enum AddressType : std::uint8_t { type_ipv4 = 1, type_name = 3, type_ipv6 = 4 };

constexpr std::uint8_t command_connect = 1;

constexpr std::array<std::uint8_t, 2> no_authentication{5, 0};
constexpr std::array<std::uint8_t, 2> user_and_password{5, 2};
constexpr std::array<std::uint8_t, 2> authenticated{1, 0};
constexpr std::array<std::uint8_t, 10> connect_accepted{5, 0, 0, 1, 0, 0, 0, 0, 0, 0};

constexpr std::size_t min_greeting = 3;
constexpr std::size_t max_credentials = 515;
// Up to the byte that tells the length of a name; every request is longer.
constexpr std::size_t request_head = 5;
constexpr std::size_t address_at = 4;
constexpr std::size_t ipv4_request = 10;
constexpr std::size_t ipv6_request = 22;

// How many bytes came, at most as many as asked for: none at the end of the
// stream or on an error. Empty when there is nothing yet.
std::optional<std::size_t> receive(int fd, std::span<std::uint8_t> bytes) {
  ssize_t length = -1;
  do {
    length = recv(fd, bytes.data(), bytes.size(), 0);
  } while (length == -1 && errno == EINTR);
  if (length >= 0) return static_cast<std::size_t>(length);
  if (errno == EAGAIN || errno == EWOULDBLOCK) return std::nullopt;
  return 0;
}

// A reply always fits an empty send buffer: a short write is a failure.
bool reply(int fd, Bytes bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// The steps of one state: a verdict, or empty to go on with the state that was
// entered.
using Outcome = std::optional<Verdict>;

Outcome reply_and_enter(Socks5Conn& conn, Bytes bytes, State state) {
  if (!reply(conn.fd, bytes)) return Verdict::end;
  conn.state = state;
  return std::nullopt;
}

// Answered as soon as three bytes are there, whatever methods are offered; the
// rest of the methods is skipped when it comes, but nothing behind them.
Outcome read_greeting(Socks5Conn& conn) {
  std::array<std::uint8_t, min_greeting> head{};
  const auto length = receive(conn.fd, head);
  if (!length) return Verdict::keep;
  if (*length < head.size()) return Verdict::end;
  const std::size_t due = 2U + head[1];
  conn.greeting_left = static_cast<std::uint16_t>(due > head.size() ? due - head.size() : 0);
  if (global.credentials.empty()) return reply_and_enter(conn, no_authentication, State::request);
  return reply_and_enter(conn, user_and_password, State::credentials);
}

Outcome skip_methods(Socks5Conn& conn) {
  std::array<std::uint8_t, 255> methods{};
  const auto length = receive(conn.fd, std::span(methods).first(conn.greeting_left));
  if (!length) return Verdict::keep;
  if (*length == 0) return Verdict::end;
  conn.greeting_left = static_cast<std::uint16_t>(conn.greeting_left - *length);
  return std::nullopt;
}

// Takes the same time wherever they differ.
bool are_credentials(Bytes bytes) {
  if (bytes.size() != global.credentials.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto expected = static_cast<std::uint8_t>(global.credentials[i]);
    difference |= static_cast<unsigned>(bytes[i] ^ expected);
  }
  return difference == 0;
}

// One read must bring them all and nothing else.
Outcome read_credentials(Socks5Conn& conn) {
  std::array<std::uint8_t, max_credentials> bytes{};
  const auto length = receive(conn.fd, bytes);
  if (!length) return Verdict::keep;
  if (!are_credentials(std::span(bytes).first(*length))) return Verdict::end;
  return reply_and_enter(conn, authenticated, State::request);
}

// The length of a request by its head. One of an unknown address type ends with
// the head: nobody can tell where else.
std::size_t request_size(Bytes request) {
  if (request.size() < request_head) return request_head;
  switch (request[3]) {
    case type_ipv4:
      return ipv4_request;
    case type_ipv6:
      return ipv6_request;
    case type_name:
      return request_head + request[address_at] + sizeof(std::uint16_t);
    default:
      return request_head;
  }
}

// Some clients count the zero byte behind their text: a name ends there too.
Verdict resolve_name(Socks5Conn& conn, Bytes bytes, std::uint16_t port_be, std::uint16_t query_id) {
  conn.target = SocketAddress::v4(std::array<std::uint8_t, 4>{}, port_be);
  std::string_view name(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  name = name.substr(0, name.find('\0'));
  conn.query_length =
      static_cast<std::uint16_t>(dns::encode_query(conn.query, query_id, name, dns::type_a));
  if (conn.query_length == 0) return Verdict::end;
  conn.state = State::resolving;
  return Verdict::resolve;
}

// The success reply comes first, before anybody knows whether the destination
// can be reached; intended.
Verdict connect_request(Socks5Conn& conn, Bytes request, std::uint16_t query_id) {
  if (tcp::global.listen_fd < 0 || !reply(conn.fd, connect_accepted)) return Verdict::end;
  const auto port = request.last(sizeof(std::uint16_t));
  std::uint16_t port_be = 0;
  std::memcpy(&port_be, port.data(), port.size());
  switch (request[3]) {
    case type_ipv4:
      conn.target = SocketAddress::v4(request.subspan<address_at, 4>(), port_be);
      return Verdict::join;
    case type_ipv6:
      conn.target = SocketAddress::v6(request.subspan<address_at, 16>(), port_be);
      return Verdict::join;
    case type_name:
      return resolve_name(conn, request.subspan(request_head, request[address_at]), port_be,
                          query_id);
    default:
      return Verdict::end;
  }
}

// 05 00 00, the type of the request, the relay's address and port. A request
// with a name gets 16 address bytes although its type stays that of a name;
// intended. The length, 0 when an IPv6 address would have to be told in 4 bytes.
std::size_t build_association(std::span<std::uint8_t, ipv6_request> bytes, std::uint8_t type,
                              SocketAddress local) {
  local.normalise();
  const bool is_ipv4 = local.family() == AF_INET;
  bytes[0] = 5;
  bytes[3] = type;
  std::size_t length = address_at;
  const auto put = [&bytes, &length](Bytes part) {
    std::ranges::copy(part, bytes.subspan(length).begin());
    length += part.size();
  };
  if (type == type_name) {
    put((is_ipv4 ? SocketAddress::mapped_v4(local.ipv4(), 0) : local).uniform());
  } else if (is_ipv4) {
    put(local.ipv4());
  } else {
    return 0;
  }
  std::array<std::uint8_t, sizeof(std::uint16_t)> port{};
  std::memcpy(port.data(), &httpudp::global.relay_port_be, port.size());
  put(port);
  return length;
}

Outcome associate_request(Socks5Conn& conn, std::uint8_t type) {
  if (httpudp::global.socks5_fd < 0) return Verdict::end;
  SocketAddress local;
  socklen_t size = SocketAddress::size;
  if (getsockname(conn.fd, local.raw(), &size) == -1) return Verdict::end;
  std::array<std::uint8_t, ipv6_request> bytes{};
  const std::size_t length = build_association(bytes, type, local);
  if (length == 0) return Verdict::end;
  // What came behind the request belongs to it, the address is not looked at.
  (void)receive(conn.fd, conn.request);
  return reply_and_enter(conn, std::span(bytes).first(length), State::associated);
}

// Gathered byte by byte if need be, and no byte more: what follows a CONNECT is
// payload. Every command but CONNECT is taken for UDP ASSOCIATE.
Outcome read_request(Socks5Conn& conn, std::uint16_t query_id) {
  for (;;) {
    const std::span<std::uint8_t> bytes(conn.request);
    const std::size_t due = request_size(bytes.first(conn.request_length));
    if (conn.request_length == due) break;
    const auto length =
        receive(conn.fd, bytes.subspan(conn.request_length, due - conn.request_length));
    if (!length) return Verdict::keep;
    if (*length == 0) return Verdict::end;
    conn.request_length = static_cast<std::uint16_t>(conn.request_length + *length);
  }
  const Bytes request = Bytes(conn.request).first(conn.request_length);
  if (request[1] == command_connect) return connect_request(conn, request, query_id);
  return associate_request(conn, request[3]);
}

// A client that gives up while its name is resolved is noticed, unless it has
// sent payload, which stays in the socket for the relay.
Verdict look_for_end(const Socks5Conn& conn) {
  std::uint8_t byte = 0;
  const ssize_t length = recv(conn.fd, &byte, 1, MSG_PEEK);
  if (length > 0) return Verdict::keep;
  return length == -1 && (errno == EAGAIN || errno == EINTR) ? Verdict::keep : Verdict::end;
}

// Nothing is expected any more: input ends the association, and so does its end.
Verdict read_associated(Socks5Conn& conn) {
  return receive(conn.fd, conn.request) ? Verdict::end : Verdict::keep;
}

Outcome advance(Socks5Conn& conn, std::uint16_t query_id) {
  if (conn.greeting_left != 0) return skip_methods(conn);
  switch (conn.state) {
    case State::greeting:
      return read_greeting(conn);
    case State::credentials:
      return read_credentials(conn);
    case State::request:
      return read_request(conn, query_id);
    case State::resolving:
      return look_for_end(conn);
    case State::associated:
      return read_associated(conn);
  }
  return Verdict::end;
}

}  // namespace

Verdict socks5_handshake_step(Socks5Conn& conn, std::uint16_t query_id) {
  const int off = 0;
  (void)setsockopt(conn.fd, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off);
  if (conn.state != State::resolving) conn.idle_ticks = 0;
  for (;;) {
    if (const Outcome verdict = advance(conn, query_id)) return *verdict;
  }
}

}  // namespace vrox::socks5
