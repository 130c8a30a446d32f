#include "peers/clients.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace peers {

namespace {

constexpr std::uint16_t listen_port = 1080;
constexpr std::uint16_t socks_listen_port = 1081;
constexpr std::uint16_t dns_listen_port = 1053;
constexpr std::uint16_t relay_listen_port = 1091;
constexpr std::uint16_t dns_port = 53;

bool is_v6(Entry entry) {
  return entry == Entry::redirect6 || entry == Entry::socks6 || entry == Entry::tun6;
}

bool is_rude(Reception reception) {
  return reception != Reception::polite && reception != Reception::dribbles;
}

std::string host_for(bool v6, Reception reception) {
  return (v6 ? "fd77::9" : "10.77.0.9") + std::to_string(static_cast<int>(reception));
}

Address local(std::uint16_t port) { return address("127.0.0.1", port); }

// ---- SOCKS5 ---------------------------------------------------------------------

// The destination as requests and datagram headers carry it.
std::string socks_address(const Address& to) {
  std::string text;
  const auto* bytes = reinterpret_cast<const char*>(&to.sin6_addr);
  if (IN6_IS_ADDR_V4MAPPED(&to.sin6_addr)) {
    text.append("\x01").append(bytes + 12, 4);
  } else {
    text.append("\x04").append(bytes, 16);
  }
  return text.append(reinterpret_cast<const char*>(&to.sin6_port), 2);
}

std::string socks_name(Reception reception, std::uint16_t port) {
  std::string text = "\x03?h" + std::to_string(static_cast<int>(reception)) + ".soak.test";
  text[1] = static_cast<char>(text.size() - 2);
  text.push_back(static_cast<char>(port >> 8));
  text.push_back(static_cast<char>(port & 0xff));
  return text;
}

Task<bool> socks_handshake(Socket& socket, char command, const std::string& where) {
  const std::string greeting("\5\1\0", 3);
  if (!co_await send_all(socket, bytes_of(greeting), patience_ms)) co_return false;
  std::array<std::uint8_t, 2> method{};
  if (!co_await receive_all(socket, method, patience_ms)) co_return false;
  std::string request("\5?\0", 3);
  request[1] = command;
  request += where;
  if (!co_await send_all(socket, bytes_of(request), patience_ms)) co_return false;
  std::array<std::uint8_t, 10> reply{};
  co_return co_await receive_all(socket, reply, patience_ms);
}

// The client's CONNECT, answered by the daemon itself.
Task<bool> connect_locally(Socket& socket, const std::string& host) {
  const std::string request = "CONNECT " + host + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
  if (!co_await send_all(socket, bytes_of(request), patience_ms)) co_return false;
  const std::string answer = co_await receive_until(socket, "\r\n\r\n", patience_ms);
  co_return answer.starts_with("HTTP/1.1 200 Connection established\r\n");
}

// ---- streams --------------------------------------------------------------------

Task<End> carry_out(Socket& socket, Exchange exchange) {
  const Order& order = exchange.order;
  const auto head = write_order(order);
  if (!co_await send_all(socket, head, patience_ms)) co_return End::lost;
  Flow out = upward(order);
  Flow in = downward(order);
  Keys plain;
  const End end = co_await duplex(socket, plain, out, in, exchange.manner);
  if (end == End::cut && exchange.manner == Manner::reset) socket.reset();
  if (end != End::ok || !order.far_closes) co_return end;
  co_return co_await expect_end(socket);
}

// ---- datagrams ------------------------------------------------------------------

// True when the datagram came; others are late ones of earlier tries.
Task<bool> await_datagram(Socket& socket, const std::string& due) {
  static std::array<char, 70000> bytes{};
  const std::int64_t until = now_ms() + datagram_patience_ms;
  while (now_ms() < until) {
    const ssize_t got = recv(socket.fd(), bytes.data(), bytes.size(), 0);
    if (got >= 0 && std::string_view(bytes.data(), static_cast<std::size_t>(got)) == due) {
      totals.bytes += due.size();
      co_return true;
    }
    if (got == -1) co_await socket.event(until - now_ms());
  }
  co_return false;
}

// A datagram of its own that is sent and answered.
Task<bool> ask(Socket& socket, const std::string& query, const std::string& due, unsigned tries) {
  for (unsigned i = 0; i < tries; ++i) {
    (void)send(socket.fd(), query.data(), query.size(), MSG_NOSIGNAL);
    if (co_await await_datagram(socket, due)) {
      co_return true;
    }
  }
  co_return false;
}

std::string query_for(const std::string& name) {
  std::string query("??\1\0\0\1\0\0\0\0\0\0", 12);
  query[0] = static_cast<char>(random_below(256));
  query[1] = static_cast<char>(random_below(256));
  for (std::size_t at = 0; at < name.size();) {
    const std::size_t dot = std::min(name.find('.', at), name.size());
    query.push_back(static_cast<char>(dot - at));
    query.append(name, at, dot - at);
    at = dot + 1;
  }
  return query.append("\0\0\1\0\1", 5);
}

// As the name server sends it on, or as the daemon builds it from an HTTP answer.
std::string answer_to(const std::string& query, const std::string& name, bool built) {
  std::string answer = query;
  answer[2] = built ? '\x85' : '\x81';
  answer[3] = '\x80';
  answer[7] = 1;
  answer.append("\xc0\x0c\0\1\0\1", 6);
  answer.append(built ? std::string("\0\0\x0e\x10", 4) : std::string("\0\0\0\x3c", 4));
  answer.append("\0\4", 2);
  for (const std::uint8_t byte : address_of_name(name)) answer.push_back(static_cast<char>(byte));
  return answer;
}

Path path_of(Datagrams kind) { return {.marked = false, .device = kind == Datagrams::device}; }

Address service_of(Datagrams kind) {
  const std::string network = kind == Datagrams::device ? "203.0.113." : "198.51.100.";
  // Few enough: the daemon keeps a socket for each to answer from.
  const std::uint32_t hosts = datagrams_per_tunnel == 0 ? 20 : 1;
  return address(network + std::to_string(1 + random_below(hosts)), 4000);
}

std::string random_payload(std::uint32_t largest) {
  std::string payload(8 + random_below(largest), '\0');
  const std::span bytes(reinterpret_cast<std::uint8_t*>(payload.data()), payload.size());
  fill_pattern(random_number(), 0, bytes);
  return payload;
}

// ---- bad manners ------------------------------------------------------------------

Task<End> send_garbage() {
  constexpr std::array<std::uint16_t, 2> ports{listen_port, socks_listen_port};
  Socket socket;
  if (!co_await dial(socket, local(ports[random_below(2)]), {}, patience_ms)) co_return End::lost;
  std::array<std::uint8_t, 600> bytes{};
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random_number());
  if (random_below(2) != 0) bytes[0] = 5;
  (void)send(socket.fd(), bytes.data(), 1 + random_below(600), MSG_NOSIGNAL);
  co_await pause_ms(random_below(500));
  if (random_below(2) != 0) socket.reset();
  co_return End::cut;
}

Task<End> send_stray_datagrams() {
  constexpr std::array<std::uint16_t, 3> ports{dns_listen_port, relay_listen_port, dns_port};
  const std::uint16_t port = ports[random_below(3)];
  const bool device = port == dns_port;
  Socket socket(open_datagram(device ? address("10.77.0.5", port) : local(port),
                              {.marked = false, .device = device}));
  for (unsigned i = random_below(50); i > 0; --i) {
    std::array<std::uint8_t, 300> bytes{};
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random_number());
    // Not a name: who asks for one that is answered by nobody would hold a slot.
    if (random_below(2) != 0) bytes[4] = bytes[5] = 0;
    if (port == relay_listen_port) bytes[2] = 1;  // a fragment: no tunnel is opened for it
    (void)send(socket.fd(), bytes.data(), random_below(300), MSG_NOSIGNAL);
  }
  co_return End::cut;
}

Task<End> flood() {
  const bool through_socks = random_below(2) != 0;
  std::vector<std::unique_ptr<Socket>> sockets;
  for (unsigned i = 20 + random_below(100); i > 0; --i) {
    sockets.push_back(std::make_unique<Socket>());
    const Address to =
        through_socks ? local(socks_listen_port) : address("10.77.0.90", origin_port);
    (void)co_await dial(*sockets.back(), to, {.marked = !through_socks}, patience_ms);
  }
  co_await pause_ms(random_below(300));
  for (auto& socket : sockets) {
    if (random_below(2) != 0) socket->reset();
  }
  co_return End::cut;
}

Task<End> say_nothing() {
  Socket socket;
  const auto entry = static_cast<Entry>(random_below(entry_kinds));
  if (!co_await enter(socket, entry, origin_port, Reception::polite)) co_return End::lost;
  co_await pause_ms(random_below(4000));
  if (random_below(2) != 0) socket.reset();
  co_return End::cut;
}

}  // namespace

Task<bool> enter(Socket& socket, Entry entry, Port port, Reception reception) {
  const Address to = address(host_for(is_v6(entry), reception), port);
  const bool marked = entry == Entry::redirect || entry == Entry::redirect6;
  const bool device = entry == Entry::tun || entry == Entry::tun6;
  if (marked || device) co_return co_await dial(socket, to, {marked, device}, patience_ms);
  if (!co_await dial(socket, local(socks_listen_port), {}, patience_ms)) co_return false;
  const std::string where =
      entry == Entry::socks_name ? socks_name(reception, port) : socks_address(to);
  co_return co_await socks_handshake(socket, 1, where);
}

Task<End> exchange_stream(Exchange exchange) {
  Socket socket;
  if (!co_await enter(socket, exchange.entry, exchange.port, exchange.reception)) {
    co_return End::lost;
  }
  bool open = true;
  if (exchange.port == local_connect_port) {
    const bool v6 = is_v6(exchange.entry);
    const std::string host = host_for(v6, exchange.reception);
    const std::string target = (v6 ? "[" + host + "]" : host) + ":7004";
    open = co_await connect_locally(socket, target);
  }
  const End end = open ? co_await carry_out(socket, exchange) : End::lost;
  const bool may_end_early = is_rude(exchange.reception) || exchange.order.far != Manner::polite ||
                             exchange.manner == Manner::half_close;
  co_return end == End::lost&& may_end_early ? End::cut : end;
}

Task<End> exchange_http(Entry entry, unsigned requests, std::uint32_t largest) {
  Socket socket;
  if (!co_await enter(socket, entry, http_port, Reception::polite)) co_return End::lost;
  Keys plain;
  for (; requests > 0; --requests) {
    const Order order{
        .id = random_number(), .up = random_below(largest), .down = random_below(largest)};
    std::array<char, 200> head{};
    const int length =
        std::snprintf(head.data(), head.size(),
                      "POST /%016llx/%u/%u HTTP/1.1\r\nHost: soak.test\r\n"
                      "X-Drop: 1\r\nX-Keep: abc\r\n\r\n",
                      static_cast<unsigned long long>(order.id), order.up, order.down);
    const std::string text(head.data(), static_cast<std::size_t>(length));
    if (!co_await send_all(socket, bytes_of(text), patience_ms)) co_return End::lost;
    Flow up = upward(order);
    Flow none;
    End end = co_await duplex(socket, plain, up, none, Manner::polite);
    if (end != End::ok) co_return end;
    const std::string answer = co_await receive_until(socket, "\r\n\r\n", patience_ms);
    if (answer.empty()) co_return End::lost;
    Flow down = downward(order);
    end = co_await duplex(socket, plain, none, down, Manner::polite);
    if (end != End::ok) co_return end;
  }
  co_return End::ok;
}

Task<End> exchange_dns(Lookup lookup, Reception reception, unsigned tries) {
  const bool device = lookup == Lookup::device;
  const bool by_http = lookup == Lookup::http;
  const std::uint16_t port = device ? dns_port : dns_listen_port;
  Socket socket(open_datagram(device ? address("10.77.0.5", port) : local(port),
                              {.marked = false, .device = device}));
  std::array<char, 40> text{};
  (void)std::snprintf(text.data(), text.size(), "%c%016llx.%s.test",
                      'a' + static_cast<char>(reception),
                      static_cast<unsigned long long>(random_number()), by_http ? "http" : "tcp");
  const std::string name = text.data();
  if (is_rude(reception)) tries = 1;
  for (int i = lookup == Lookup::again ? 2 : 1; i > 0; --i) {
    const std::string query = query_for(name);
    const std::string due = answer_to(query, name, by_http);
    if (co_await ask(socket, query, due, tries)) continue;
    co_return is_rude(reception) ? End::cut : End::lost;
  }
  co_return End::ok;
}

Task<End> exchange_udp(Datagrams kind, unsigned count, std::uint32_t largest, unsigned tries) {
  Socket association;
  if (kind == Datagrams::relay) {
    if (!co_await dial(association, local(socks_listen_port), {}, patience_ms)) co_return End::lost;
    const std::string anywhere = socks_address(address("0.0.0.0", 0));
    if (!co_await socks_handshake(association, 3, anywhere)) co_return End::lost;
  }
  const Address service = service_of(kind);
  Socket socket(
      open_datagram(kind == Datagrams::relay ? local(relay_listen_port) : service, path_of(kind)));
  const std::string header =
      kind == Datagrams::relay ? std::string(3, '\0') + socks_address(service) : std::string();
  for (; count > 0; --count) {
    const std::string datagram = header + random_payload(largest);
    if (!co_await ask(socket, datagram, datagram, tries)) co_return End::lost;
  }
  co_return End::ok;
}

Task<End> misbehave() {
  switch (random_below(4)) {
    case 0:
      co_return co_await send_garbage();
    case 1:
      co_return co_await send_stray_datagrams();
    case 2:
      co_return co_await flood();
    default:
      co_return co_await say_nothing();
  }
}

}  // namespace peers
