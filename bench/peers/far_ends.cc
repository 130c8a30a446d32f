#include "peers/far_ends.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace peers {

namespace {

constexpr std::string_view head_end = "\r\n\r\n";

void complain(const char* what, std::string_view got) {
  std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(got.size()), got.data());
  ++totals.ends[static_cast<std::size_t>(End::wrong)];
}

// ---- connections ----------------------------------------------------------------

// What stands behind every handshake: the client's order is carried out.
Task<bool> serve_order(Socket& socket, Keys keys) {
  std::array<std::uint8_t, order_size> head{};
  if (!co_await receive_all(socket, head, patience_ms)) co_return false;
  if (keys.on) {
    decipher(head, keys.in);
    advance(keys.in, head.size());
  }
  const auto order = read_order(head);
  if (!order) {
    complain("no order", {reinterpret_cast<const char*>(head.data()), head.size()});
    co_return false;
  }
  Flow out = downward(*order);
  Flow in = upward(*order);
  const End end = co_await duplex(socket, keys, out, in, order->far);
  if (end == End::wrong) ++totals.ends[static_cast<std::size_t>(end)];
  if (end == End::cut && order->far == Manner::reset) socket.reset();
  if (end != End::ok || order->far_closes) co_return true;
  if (co_await expect_end(socket) == End::wrong) complain("origin", "more than the client sent");
  co_return true;
}

Task<bool> serve_origin(Socket& socket) { co_return co_await serve_order(socket, {}); }

Reception reception_for(std::string_view host) {
  while (!host.empty() && (host.back() < '0' || host.back() > '9')) host.remove_suffix(1);
  return host.empty() ? Reception::polite : static_cast<Reception>((host.back() - '0') % 5);
}

// False when the connection is to end here.
Task<bool> receive_client(Socket& socket, Reception how) {
  if (how == Reception::resets) socket.reset();
  if (how == Reception::ignores) co_await pause_ms(100 + random_below(2000));
  co_return how == Reception::polite || how == Reception::dribbles;
}

Task<bool> reply(Socket& socket, Bytes bytes, Reception how) {
  if (how != Reception::dribbles) co_return co_await send_all(socket, bytes, patience_ms);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (!co_await send_all(socket, bytes.subspan(i, 1), patience_ms)) co_return false;
    co_await pause_ms(random_below(3));
  }
  co_return true;
}

Task<bool> serve_proxy_with(Socket& socket, bool enciphered) {
  const std::string head = co_await receive_until(socket, head_end, patience_ms);
  if (head.empty()) co_return false;
  if (!head.starts_with("CONNECT ")) {
    complain("proxy", head);
    co_return false;
  }
  std::string host = head.substr(8, head.find(' ', 8) - 8);
  Keys keys;
  if (enciphered) {
    host = decode_base64(host);
    if (host.empty()) co_return false;
    keys = {.on = true, .in = static_cast<std::uint8_t>(host.back()), .out = 0};
    keys.out = keys.in;
    host.pop_back();
    decipher({reinterpret_cast<std::uint8_t*>(host.data()), host.size()}, keys.in);
  }
  const std::size_t colon = host.rfind(':');
  if (colon == std::string::npos) {
    complain("proxy, host", host);
    co_return false;
  }
  const Reception how = reception_for(std::string_view(host).substr(0, colon));
  if (!co_await receive_client(socket, how)) co_return false;
  const Bytes answer = bytes_of("HTTP/1.1 200 OK\r\nX: y\r\n\r\n");
  if (!co_await reply(socket, answer, how)) co_return false;
  co_return co_await serve_order(socket, keys);
}
Task<bool> serve_proxy(Socket& socket) { co_return co_await serve_proxy_with(socket, false); }
Task<bool> serve_cipher(Socket& socket) { co_return co_await serve_proxy_with(socket, true); }

Task<bool> serve_socks5(Socket& socket) {
  std::array<std::uint8_t, 4> greeting{};
  if (!co_await receive_all(socket, greeting, patience_ms)) co_return false;
  const std::array<std::uint8_t, 2> wants_password{5, 2};
  if (!co_await reply(socket, wants_password, Reception::polite)) co_return false;
  const std::string_view login = "\x01\x02me\x06secret";
  std::array<std::uint8_t, 11> sent{};
  if (!co_await receive_all(socket, sent, patience_ms)) co_return false;
  if (!std::ranges::equal(sent, bytes_of(login))) complain("SOCKS5 login", "other than configured");
  const std::array<std::uint8_t, 2> granted{1, 0};
  if (!co_await reply(socket, granted, Reception::polite)) co_return false;

  std::array<std::uint8_t, 22> request{};
  if (!co_await receive_all(socket, std::span(request).first(10), patience_ms)) co_return false;
  std::size_t last = 7;  // of the address
  if (request[3] == 4) {
    if (!co_await receive_all(socket, std::span(request).subspan(10), patience_ms)) co_return false;
    last = 19;
  }
  const unsigned digit = request[3] == 4 ? request[last] & 15 : request[last] % 10;
  const auto how = static_cast<Reception>(digit % reception_kinds);
  if (!co_await receive_client(socket, how)) co_return false;
  const std::array<std::uint8_t, 10> granted_too{5, 0, 0, 1};
  if (!co_await reply(socket, granted_too, how)) co_return false;
  co_return co_await serve_order(socket, {});
}

// ---- HTTP -------------------------------------------------------------------------

// One request after the other, as the rewriting leaves them.
Task<bool> serve_http(Socket& socket) {
  for (;;) {
    const std::string head = co_await receive_until(socket, head_end, patience_ms);
    if (head.empty()) co_return false;
    unsigned long long id = 0;
    Order order;
    const bool read =
        std::sscanf(head.c_str(), "POST /%llx/%u/%u HTTP/1.1", &id, &order.up, &order.down) == 3;
    order.id = id;
    const std::size_t rest = head.find("\r\n") + 2;
    if (!read || head.substr(rest) != "Host: soak.test\r\nX-Keep: abcdef\r\n\r\n") {
      complain("request", head);
      co_return false;
    }
    Keys plain;
    Flow in = upward(order);
    Flow none;
    if (co_await duplex(socket, plain, none, in, Manner::polite) != End::ok) co_return false;
    const std::string answer =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(order.down) + "\r\n\r\n";
    if (!co_await send_all(socket, bytes_of(answer), patience_ms)) co_return false;
    Flow out = downward(order);
    if (co_await duplex(socket, plain, out, none, Manner::polite) != End::ok) co_return false;
  }
}

// ---- names --------------------------------------------------------------------------

constexpr std::size_t dns_header = 12;

std::string reply_to(Bytes query, const std::array<std::uint8_t, 4>& address) {
  std::string reply(reinterpret_cast<const char*>(query.data()), query.size());
  reply[2] = '\x81';
  reply[3] = '\x80';
  reply[7] = 1;
  reply.append("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4", 12);
  reply.append(reinterpret_cast<const char*>(address.data()), address.size());
  return reply;
}

// The first letter of a name tells how its server is to behave.
Reception reception_of(std::string_view name) {
  return name.empty() ? Reception::polite : static_cast<Reception>((name[0] - 'a') % 5);
}

Task<bool> serve_dns_tcp(Socket& socket) {
  std::array<std::uint8_t, 2> length{};
  if (!co_await receive_all(socket, length, patience_ms)) co_return false;
  std::string query(static_cast<std::size_t>(length[0] * 256 + length[1]), '\0');
  const std::span room(reinterpret_cast<std::uint8_t*>(query.data()), query.size());
  if (!co_await receive_all(socket, room, patience_ms)) co_return false;
  const std::string name = question_name(room);
  const Reception how = reception_of(name);
  if (!co_await receive_client(socket, how)) co_return false;
  std::string answer = reply_to(room, address_of_name(name));
  answer.insert(0, 1, static_cast<char>(answer.size()));  // shorter than 256 bytes
  answer.insert(0, 1, '\0');
  co_return co_await reply(socket, bytes_of(answer), how);
}

Task<bool> serve_dns_http(Socket& socket) {
  const std::string head = co_await receive_until(socket, head_end, patience_ms);
  if (head.empty()) co_return false;
  const std::size_t at = head.find("/d?dn=");
  if (at == std::string::npos) {
    complain("lookup", head);
    co_return false;
  }
  const std::string name = head.substr(at + 6, head.find(' ', at) - at - 6);
  const Reception how = reception_of(name);
  if (!co_await receive_client(socket, how)) co_return false;
  const auto a = address_of_name(name);
  std::array<char, 100> text{};
  const int length = std::snprintf(text.data(), text.size(), "HTTP/1.1 200 OK\r\n\r\n%u.%u.%u.%u\n",
                                   a[0], a[1], a[2], a[3]);
  const Bytes answer = bytes_of({text.data(), static_cast<std::size_t>(length)});
  co_return co_await reply(socket, answer, how);
}

// "h3.soak.test" lives at 10.77.0.93.
Detached serve_names() {
  Socket socket(open_receiver(names_port));
  std::array<std::uint8_t, 512> query{};
  for (;;) {
    Address client{};
    socklen_t length = sizeof client;
    const ssize_t got = recvfrom(socket.fd(), query.data(), query.size(), 0,
                                 reinterpret_cast<sockaddr*>(&client), &length);
    if (got == -1) {
      co_await socket.event(1'000'000);
      continue;
    }
    const Bytes asked = std::span(query).first(static_cast<std::size_t>(got));
    const std::string name = question_name(asked);
    const auto digit = static_cast<std::uint8_t>(name.size() > 1 ? name[1] - '0' : 0);
    const std::string answer = reply_to(asked, {10, 77, 0, static_cast<std::uint8_t>(90 + digit)});
    (void)sendto(socket.fd(), answer.data(), answer.size(), 0,
                 reinterpret_cast<const sockaddr*>(&client), length);
  }
}

// ---- UDP over HTTP --------------------------------------------------------------------

// The clock told the daemon which key to begin with; the first header tells us.
bool learn_key(const std::array<std::uint8_t, 6>& first, Keys& keys) {
  const std::int64_t now = time(nullptr);
  for (int ago = 0; ago < 1000; ++ago) {
    std::array<std::uint8_t, 6> bytes = first;
    keys = {.on = true, .in = starting_key(now - ago), .out = starting_key(now - ago)};
    decipher(bytes, keys.in);
    const bool fits = bytes[2] == 0 && bytes[3] == 0 && bytes[4] == 0;
    if (fits && (bytes[5] == 1 || bytes[5] == 4)) return true;
  }
  return false;
}

// Every datagram goes back to where it came from.
Task<bool> serve_udp_tunnel(Socket& socket) {
  const std::string head = co_await receive_until(socket, head_end, patience_ms);
  if (head.empty()) co_return false;
  if (head.find("ZeltProxyType: httpUDP\r\n") == std::string::npos) complain("UDP", head);
  if (!co_await send_all(socket, bytes_of("HTTP/1.1 200 OK\r\n\r\n"), patience_ms)) co_return false;
  Keys keys;
  std::string datagram;
  const std::int64_t until = now_ms() + 1000 + random_below(4000);
  for (unsigned count = 0; now_ms() < until;) {
    std::array<std::uint8_t, 6> first{};
    if (!co_await receive_all(socket, first, std::min<std::int64_t>(patience_ms, 1000))) {
      co_return false;
    }
    if (!keys.on && !learn_key(first, keys)) {
      complain("UDP", "no key fits");
      co_return false;
    }
    decipher(first, keys.in);
    advance(keys.in, first.size());
    std::uint16_t length = 0;
    std::memcpy(&length, first.data(), sizeof length);
    if (length < 10) {
      complain("UDP", "too short a frame");
      co_return false;
    }
    datagram.resize(std::size_t{length} + 2);
    const std::span all(reinterpret_cast<std::uint8_t*>(datagram.data()), datagram.size());
    if (!co_await receive_all(socket, all.subspan(6), patience_ms)) co_return false;
    decipher(all.subspan(6), keys.in);
    advance(keys.in, all.size() - 6);
    std::ranges::copy(first, all.begin());
    encipher(all, keys.out);
    advance(keys.out, all.size());
    if (!co_await send_all(socket, all, patience_ms)) co_return false;
    if (++count == datagrams_per_tunnel) co_return true;
  }
  co_return true;
}

// ---- listeners --------------------------------------------------------------------------

using Handler = Task<bool> (*)(Socket& socket);

Detached serve_one(int fd, Handler handler) {
  Socket socket(fd);
  co_await handler(socket);
}

Detached serve(std::uint16_t port, Handler handler) {
  Socket listener(open_listener(port));
  for (;;) {
    const int fd = accept4(listener.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd != -1) {
      ++connections_served;
      serve_one(fd, handler);
    } else if (errno == EMFILE) {
      co_await pause_ms(10);
    } else if (errno == EAGAIN) {
      co_await listener.event(1'000'000);
    }
  }
}

}  // namespace

unsigned datagrams_per_tunnel = 0;
unsigned connections_served = 0;

std::array<std::uint8_t, 4> address_of_name(std::string_view name) {
  std::uint64_t hash = 0;
  for (const char c : name) hash = mix(hash ^ static_cast<std::uint8_t>(c));
  return {93, static_cast<std::uint8_t>(hash), static_cast<std::uint8_t>(hash >> 8),
          static_cast<std::uint8_t>(hash >> 16)};
}

std::string question_name(Bytes query) {
  std::string name;
  for (std::size_t at = dns_header; at < query.size() && query[at] != 0; at += 1U + query[at]) {
    if (at + 1 + query[at] > query.size()) return {};
    if (!name.empty()) name.push_back('.');
    name.append(reinterpret_cast<const char*>(&query[at]) + 1, query[at]);
  }
  return name;
}

void start_far_ends() {
  serve(origin_port, serve_origin);
  serve(fast_open_port, serve_origin);
  serve(limited_port, serve_origin);
  serve(proxy_port, serve_proxy);
  serve(cipher_proxy_port, serve_cipher);
  serve(socks5_port, serve_socks5);
  serve(http_port, serve_http);
  serve(dns_tcp_port, serve_dns_tcp);
  serve(dns_http_port, serve_dns_http);
  serve(udp_tunnel_port, serve_udp_tunnel);
  serve_names();
}

}  // namespace peers
