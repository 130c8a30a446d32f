#include "socks5/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "dns/message.h"
#include "main/listener.h"
#include "main/loop.h"
#include "main/slot_table.h"
#include "socks5/global.h"
#include "tcp/session.h"
#include "tcp/upstream.h"

namespace vrox::socks5 {

namespace {

using State = Socks5Conn::State;

constexpr std::uint64_t slot_mark = std::uint64_t{1} << 32;  // above every descriptor's number
constexpr int answers_per_pass = 64;
constexpr std::array<int, 3> worth_a_reconnect{
    ENETUNREACH,   // the network was away
    EDESTADDRREQ,  // and still is since start-up
    ECONNREFUSED,  // told now, but about an earlier query
};

constinit Loop loop;
constinit Listener listener;
constinit SlotTable<Socks5Conn> table;
constinit Socks5Conn* ended = nullptr;  // released at the end of the pass
constinit bool prepared = false;        // before any thread runs

constinit std::atomic<std::size_t> open_handshakes = 0;  // read by the graceful stop
constinit std::atomic<bool> drained = false;             // likewise

[[noreturn]] void fail(const char* call) {
  std::perror(call);
  std::exit(1);
}

// The DNS server's name for a slot. A slot beyond what 16 bits tell would get
// another one's answer.
bool has_query_id(const Socks5Conn& conn) { return table.index_of(conn) <= UINT16_MAX; }
std::uint16_t query_id(const Socks5Conn& conn) {
  return static_cast<std::uint16_t>(table.index_of(conn));
}

void clear(Socks5Conn& conn) {
  if (conn.state != State::associated) open_handshakes.fetch_sub(1, std::memory_order_release);
  conn = Socks5Conn{};
  conn.next_ended = ended;
  ended = &conn;
}

void end(Socks5Conn& conn) {
  loop.unwatch(conn.fd);
  loop.retire(conn.fd);
  clear(conn);
}

void release_ended() {
  if (ended == nullptr) return;
  while (ended != nullptr) {
    Socks5Conn& conn = *ended;
    ended = conn.next_ended;
    conn.next_ended = nullptr;
    table.release(conn);
  }
  listener.resume();
}

bool accept_client() {
  Socks5Conn* conn = table.claim();
  if (conn == nullptr) {
    listener.pause();
    return false;
  }
  conn->fd = listener.accept(conn->client_addr);
  if (conn->fd == -1) {
    table.release(*conn);
    return false;
  }
  open_handshakes.fetch_add(1, std::memory_order_relaxed);
  if (!loop.watch(conn->fd, watch_input, slot_mark | table.index_of(*conn))) end(*conn);
  return true;
}

bool send_query(const Socks5Conn& conn) {
  return send(global.dns_fd, conn.query.data(), conn.query_length, MSG_NOSIGNAL) ==
         static_cast<ssize_t>(conn.query_length);
}

bool ask(const Socks5Conn& conn) {
  if (!has_query_id(conn)) return false;
  if (send_query(conn)) return true;
  if (std::ranges::find(worth_a_reconnect, errno) == worth_a_reconnect.end()) return false;
  (void)connect(global.dns_fd, global.dns_address.raw(), global.dns_address.length());
  return send_query(conn);
}

Verdict step(Socks5Conn& conn) {
  const State before = conn.state;
  Verdict verdict = socks5_handshake_step(conn, query_id(conn));
  if (verdict == Verdict::resolve) {
    // Once more: the end of the stream may have come together with the request.
    verdict = ask(conn) ? socks5_handshake_step(conn, query_id(conn)) : Verdict::end;
  }
  if (before != State::associated && conn.state == State::associated) {
    open_handshakes.fetch_sub(1, std::memory_order_release);
  }
  return verdict;
}

void serve(Socks5Conn& conn) {
  if (conn.fd < 0) return;  // ended earlier in this pass
  const Verdict verdict = step(conn);
  if (verdict == Verdict::keep) return;
  if (verdict == Verdict::join && socks5_join_session(conn, conn.target)) return;
  end(conn);
}

void take_answer(std::span<const std::uint8_t> answer) {
  if (answer.size() < sizeof(std::uint16_t)) return;
  const std::size_t index = std::size_t{answer[0]} << 8U | answer[1];
  if (index >= table.size()) return;
  Socks5Conn& conn = table.slots()[index];
  if (conn.fd < 0 || conn.state != State::resolving) return;
  if (!dns::answers_query(answer, std::span(conn.query).first(conn.query_length))) return;
  const auto address = dns::first_address(answer, dns::type_a);
  if (address) {
    conn.target = SocketAddress::v4(std::span(address->bytes).first<4>(), conn.target.port_be());
    if (socks5_join_session(conn, conn.target)) return;
  }
  end(conn);
}

void read_answers() {
  std::array<std::uint8_t, dns::max_message> bytes{};
  for (int i = 0; i < answers_per_pass; ++i) {
    const ssize_t length = recv(global.dns_fd, bytes.data(), bytes.size(), 0);
    if (length == -1) return;  // an ICMP error is gone with this; the rest is told again
    take_answer(std::span(bytes).first(static_cast<std::size_t>(length)));
  }
}

void dispatch(std::uint64_t source) {
  if (listener.is(source)) {
    (void)accept_client();
  } else if ((source & slot_mark) != 0) {
    serve(table.slots()[static_cast<std::size_t>(source & ~slot_mark)]);
  } else if (source == static_cast<std::uint64_t>(global.dns_fd)) {
    read_answers();
  }
}

void sweep(Mail& /*tick*/) {
  const auto limit = static_cast<std::uint32_t>(std::max(global.handshake_timeout, 0));
  for (Socks5Conn& conn : table.slots()) {
    if (conn.fd < 0 || conn.state == State::associated) continue;
    if (conn.idle_ticks < limit) {
      ++conn.idle_ticks;
    } else {
      end(conn);
    }
  }
}

void drain(Mail& /*request*/) {
  while (accept_client()) {
  }
  listener.close();
  drained.store(true, std::memory_order_release);
}

constinit Mail sweep_mail{.deliver = sweep};
constinit Mail drain_mail{.deliver = drain};

void set_listener_options(int slots) {
  const int on = 1;
  (void)setsockopt(global.listen_fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &on, sizeof on);
  if (global.fast_open) {
    (void)setsockopt(global.listen_fd, IPPROTO_TCP, TCP_FASTOPEN, &slots, sizeof slots);
  }
  // Connections inherit these.
  tcp::set_no_delay(global.listen_fd);
  tcp::set_keep_alive(global.listen_fd, global.keep_alive);
}

// In place of the one that the configuration opened: workers that shared it
// would read each other's answers.
void open_dns_socket() {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) fail("socket()");
  // Without a network yet it is connected when the first query needs it.
  (void)connect(fd, global.dns_address.raw(), global.dns_address.length());
  (void)close(global.dns_fd);
  global.dns_fd = fd;
}

}  // namespace

void socks5_prepare() {
  if (global.listen_fd < 0) return;
  const int slots = std::max(global.max_sessions, 1);
  set_listener_options(slots);
  if (!table.allocate(static_cast<std::size_t>(slots))) fail("calloc()");
  constexpr std::size_t others = 3;  // listener, DNS socket, mailbox
  if (!loop.open(static_cast<std::size_t>(slots) + others)) fail("epoll_create()");
  if (!listener.open(loop, global.listen_fd)) fail("epoll_ctl()");
  if (global.dns_fd >= 0) {
    open_dns_socket();
    if (!loop.watch(global.dns_fd, EPOLLIN, static_cast<std::uint64_t>(global.dns_fd))) {
      fail("epoll_ctl()");
    }
  }
  prepared = true;
}

void socks5_server_loop() {
  for (;;) {
    const auto events = loop.wait(listener.timeout_ms());
    listener.retry();
    for (std::size_t i = events.size(); i-- > 0;) dispatch(events[i].data.u64);
    loop.deliver_mail();
    release_ended();
    loop.end_pass();
  }
}

bool socks5_join_session(Socks5Conn& conn, const SocketAddress& original_dst) {
  tcp::TcpSession* session = tcp::claim_session();
  if (session == nullptr) return false;
  session->client_fd = conn.fd;
  session->client_addr = conn.client_addr;
  session->client_addr.normalise();
  session->original_dst = original_dst;
  session->keep_alive = global.keep_alive;
  session->keeps_own_keep_alive = true;
  // Before the other thread has it: that may close the descriptor at once.
  loop.unwatch(conn.fd);
  tcp::submit_session(*session);
  clear(conn);
  return true;
}

void socks5_sweep() {
  if (prepared) loop.post(sweep_mail);
}

void socks5_drain() {
  if (prepared) loop.post(drain_mail);
}

bool socks5_drained() { return !prepared || drained.load(std::memory_order_acquire); }

std::size_t socks5_open_handshakes() { return open_handshakes.load(std::memory_order_acquire); }

}  // namespace vrox::socks5
