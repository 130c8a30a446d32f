#include "tcp/session.h"

#include <linux/netfilter_ipv4.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <utility>

#include "acl/match.h"
#include "event/loop.h"
#include "httpmod/cipher.h"
#include "main/alarm.h"
#include "main/clock.h"
#include "main/listener.h"
#include "tcp/budget.h"
#include "tcp/choose.h"
#include "tcp/client.h"
#include "tcp/global.h"
#include "tcp/relay.h"
#include "tcp/request.h"
#include "tcp/subject.h"
#include "tcp/tunnel.h"

namespace vrox::tcp {

constinit SlotTable<TcpSession> tcp_session_table;

namespace {

// linux/netfilter_ipv6/ip6_tables.h cannot be included beside the C library's
// headers.
constexpr int ip6t_so_original_dst = 80;
static_assert(SO_ORIGINAL_DST == ip6t_so_original_dst);

using LiveList = LinkedList<TcpSession, &TcpSession::live>;

constinit Loop loop;
constinit Listener listener;
constinit LiveList live_sessions;
constinit LiveList ended_sessions;  // cleared; their slots are given back at the end of the pass
constinit LinkedList<TcpSession, &TcpSession::runnable> runnable_sessions;
constinit LinkedList<TcpSession, &TcpSession::undialled> undialled_sessions;  // oldest first
constinit LinkedList<TcpSession, &TcpSession::unasked> unasked_sessions;
constinit Alarm alarm;  // for those

// With Fast Open the client's first bytes carry the connect. One that waits for
// the server's greeting would wait for ever.
constexpr int fast_open_patience_ms = 1000;

// Twice that is how late an end may be seen that came together with the last bytes
// of a conversation.
constexpr int ask_after_ms = 4;

// ---- epoll registrations ----------------------------------------------------

// The event data of a session's two descriptors: its address, with the lowest
// bit telling the upstream's from the client's.
constexpr std::uint64_t server_bit = 1;
static_assert(alignof(TcpSession) > server_bit);

std::uint64_t event_data(const TcpSession& session, Sides side) {
  return reinterpret_cast<std::uintptr_t>(&session) | (side == server_side ? server_bit : 0);
}

int fd_of(const TcpSession& session, Sides side) {
  return side == server_side ? session.upstream.fd : session.client_fd;
}

std::uint32_t& mask_of(TcpSession& session, Sides side) {
  return side == server_side ? session.server_mask : session.client_mask;
}

bool watch_side(TcpSession& session, Sides side, std::uint32_t mask) {
  if (!loop.watch(fd_of(session, side), mask, event_data(session, side))) return false;
  mask_of(session, side) = mask;
  return true;
}

void unwatch_side(TcpSession& session, Sides side) {
  std::uint32_t& mask = mask_of(session, side);
  if (mask == 0) return;
  loop.unwatch(fd_of(session, side));
  mask = 0;
}

bool upstream_wants_output(const TcpSession& session) {
  if (session.upstream.state != LinkState::connected) return true;
  if (upstream_is_open(session)) return session.c2s_left() != 0;
  return handshake_wants_output(session);
}

void arm_side(TcpSession& session, Sides side, bool wants_output) {
  if (fd_of(session, side) < 0) return;
  if (side == client_side && !client_is_socket(session)) return;
  std::uint32_t& current = mask_of(session, side);
  const std::uint32_t wanted = wants_output ? watch_both : watch_input;
  if (session.throttled) {
    unwatch_side(session, side);
  } else if (current == 0) {
    if (watch_side(session, side, wanted)) return;
    if (side == server_side) std::perror("epoll_ctl()");
    session_close(session, both_sides);
  } else if (current != wanted) {
    current = wanted;
    // A registered descriptor can always be changed.
    (void)loop.rewatch(fd_of(session, side), wanted, event_data(session, side));
  }
}

// ---- the end of sessions ------------------------------------------------------

void end_side(TcpSession& session, Sides side) {
  const int fd = fd_of(session, side);
  if (fd < 0) return;
  mask_of(session, side) = 0;
  if (side == server_side) {
    loop.retire(fd, session.server_input.at_end());
    session.upstream.fd = -1;
    session.c2s_pending.reset();
    session.c2s_sent = 0;
    discharge(session);
    give_back(session.c2s_pipe);
  } else {
    if (client_is_socket(session)) loop.retire(fd, session.client_input.at_end());
    session.client_fd = -1;
    session.request_buf.reset();  // part of a request, of which no more will come
    discharge(session);
  }
}

void clear_slot(TcpSession& session) {
  session.request_buf.reset();
  session.c2s_pending.reset();
  discharge(session);
  release_upstream(session);
  client_release_flow(session);
  if (session.owns_s2c_buf) std::free(session.s2c_buf);
  give_back(session.c2s_pipe);
  give_back(session.s2c_pipe);
  live_sessions.remove(session);
  runnable_sessions.remove(session);
  undialled_sessions.remove(session);
  unasked_sessions.remove(session);
  std::destroy_at(&session);
  std::construct_at(&session);
  ended_sessions.add(session);
}

void release_ended() {
  if (ended_sessions.empty()) return;
  while (TcpSession* session = ended_sessions.first()) {
    ended_sessions.remove(*session);
    tcp_session_table.release(*session);
  }
  listener.resume();
}

// ---- new connections ------------------------------------------------------------

// Where the firewall redirected the connection from. For one that it did not
// redirect the kernel leaves the address empty.
void learn_original_dst(TcpSession& session) {
  SocketAddress& original = session.original_dst;
  socklen_t length = SocketAddress::size;
  session.client_addr.normalise();
  if (session.client_addr.family() == AF_INET6) {
    (void)getsockopt(session.client_fd, SOL_IPV6, ip6t_so_original_dst, original.raw(), &length);
    original.set_family(AF_INET6);
    return;
  }
  (void)getsockopt(session.client_fd, SOL_IP, SO_ORIGINAL_DST, original.raw(), &length);
  original.set_family(AF_INET);
  original.spread_v4();
}

bool accept_client() {
  TcpSession* session = tcp_session_table.claim();
  if (session == nullptr) {
    listener.pause();
    return false;
  }
  const int fd = listener.accept(session->client_addr);
  if (fd == -1) {
    tcp_session_table.release(*session);
    return false;
  }
  session->client_fd = fd;
  session->keep_alive = global.keep_alive;  // inherited from the listener
  learn_original_dst(*session);
  session_start(*session);
  return true;
}

// ---- inputs taken for empty -------------------------------------------------------

// After the events, of which some will have answered.
void ask_inputs_when_due() {
  if (!alarm.is_due()) return;
  alarm.stop();
  LinkedList<TcpSession, &TcpSession::unasked> due = unasked_sessions;
  unasked_sessions = {};
  while (TcpSession* session = due.first()) {
    due.remove(*session);
    const bool client_again = session->client_input.ask();
    const bool server_again = session->server_input.ask();
    if (client_again || server_again) session_ask_soon(*session);
    session_on_readable(*session);
    session_arm(*session);
  }
}

// ---- the loop ---------------------------------------------------------------------

void dispatch(const epoll_event& event) {
  if (listener.is(event.data.u64)) {
    accept_client();
    return;
  }
  if (event::tun_is_source(event.data.u64)) return event::tun_event_loop();
  if (alarm.is(event.data.u64)) return alarm.rang();
  const auto address = static_cast<std::uintptr_t>(event.data.u64 & ~server_bit);
  TcpSession& session = *reinterpret_cast<TcpSession*>(address);
  if (!session.in_use()) return;  // ended earlier in this pass
  const bool from_server = (event.data.u64 & server_bit) != 0;
  if ((event.events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
    const bool ends = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    input_of(session, from_server ? server_side : client_side).told(ends);
    session_on_readable(session);
  }
  if ((event.events & EPOLLOUT) != 0 && session.in_use()) {
    if (from_server && session.upstream.state == LinkState::connecting) {
      session.upstream.state = LinkState::connected;
    }
    session_flush(session);
  }
  session_arm(session);
}

// Those that stop early again stay for the next pass.
void run_waiting_sessions() {
  LinkedList<TcpSession, &TcpSession::runnable> waiting = runnable_sessions;
  runnable_sessions = {};
  while (TcpSession* session = waiting.first()) {
    waiting.remove(*session);
    session_on_readable(*session);
    session_arm(*session);
  }
}

void await_first_bytes(TcpSession& session) {
  if (session.upstream.fd < 0 || session.upstream.state != LinkState::unconnected) return;
  session.dial_at_ms = monotonic_ms() + fast_open_patience_ms;
  undialled_sessions.add(session);
}

void dial_overdue_sessions() {
  if (undialled_sessions.empty()) return;
  const std::int64_t now = monotonic_ms();
  while (TcpSession* session = undialled_sessions.first()) {
    if (session->dial_at_ms > now) return;
    undialled_sessions.remove(*session);
    if (session->upstream.fd < 0 || session->upstream.state != LinkState::unconnected) continue;
    if (connect_now(session->upstream)) continue;
    std::perror("connect()");
    session_close(*session, server_side);
  }
}

// Of two limits, where -1 is none.
int sooner(int a, int b) { return a < 0 || b < 0 ? std::max(a, b) : std::min(a, b); }

int wait_limit_ms() {
  if (!runnable_sessions.empty()) return 0;
  const int limit = sooner(listener.timeout_ms(), event::tun_wait_limit_ms());
  const TcpSession* undialled = undialled_sessions.first();
  if (undialled == nullptr) return limit;
  const auto left = std::max<std::int64_t>(0, undialled->dial_at_ms - monotonic_ms());
  return sooner(limit, static_cast<int>(left));
}

// ---- mail -----------------------------------------------------------------------------

void start_submitted(Mail& mail) {
  // The mail is the first member, so the slot stands at its address.
  static_assert(offsetof(TcpSession, mail) == 0);
  auto& session = *reinterpret_cast<TcpSession*>(&mail);
  session_start(session);
}

void sweep(Mail&) {
  for (TcpSession* session = live_sessions.first(); session != nullptr;) {
    TcpSession& current = *session;
    session = LiveList::next(current);
    const std::int32_t limit = current.rule != nullptr ? current.rule->timeout : global.timeout;
    if (limit < 1 || current.idle_ticks < static_cast<std::uint32_t>(limit)) {
      ++current.idle_ticks;
    } else {
      session_close(current, both_sides);
    }
  }
}

bool has_allowance(const acl::Rule& rule) {
  return rule.speed_limit == nullptr || rule.speed_used->load(std::memory_order_relaxed) <
                                            rule.speed_limit->load(std::memory_order_relaxed);
}

// Whoever finds no allowance left is the first to be asked in the next second.
void resume_throttled(Mail&) {
  TcpSession* passed_over = nullptr;
  for (TcpSession* session = live_sessions.first(); session != nullptr;) {
    TcpSession& current = *session;
    session = LiveList::next(current);
    if (!current.throttled) continue;
    if (has_allowance(*current.rule)) {
      current.throttled = false;
      // No edges were told while it was out of the set.
      current.client_input.suppose();
      current.server_input.suppose();
      session_flush(current);
      session_arm(current);
    } else if (passed_over == nullptr) {
      passed_over = &current;
    }
  }
  if (passed_over != nullptr) live_sessions.rotate_to(*passed_over);
}

constinit bool prepared = false;
constinit std::atomic<bool> listener_closed = false;

void drain(Mail&) {
  while (global.listen_fd >= 0 && accept_client()) {
  }
  listener.close();
  release_ended();  // whoever waits for the table to be empty sees it as it is
  listener_closed.store(true, std::memory_order_release);
}

constinit Mail sweep_mail{.deliver = sweep};
constinit Mail resume_mail{.deliver = resume_throttled};
constinit Mail drain_mail{.deliver = drain};

[[noreturn]] void start_up_failure(const char* call) {
  std::perror(call);
  std::exit(EXIT_FAILURE);
}

void set_listener_options(int slots) {
  const int fd = global.listen_fd;
  if (global.fast_open) {
    (void)setsockopt(fd, IPPROTO_TCP, TCP_FASTOPEN, &slots, sizeof slots);
  }
  if (global.defer_accept) {
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &on, sizeof on);
  }
  // Connections inherit these, which saves the calls on each of them.
  set_no_delay(fd);
  set_keep_alive(fd, global.keep_alive);
}

}  // namespace

void session_arm(TcpSession& session) {
  if (!session.in_use()) return;
  arm_side(session, client_side, session.s2c_left() != 0);
  arm_side(session, server_side, upstream_wants_output(session));
}

void session_starve() { listener.starve(); }

void session_run_later(TcpSession& session) { runnable_sessions.add(session); }

void session_ask_soon(TcpSession& session) {
  unasked_sessions.add(session);
  alarm.set(ask_after_ms);
}

void session_start(TcpSession& session) {
  live_sessions.add(session);
  session.c2s_cipher_state = session.s2c_cipher_state = httpmod::starting_key(std::time(nullptr));
  session.rule = acl::match_at_connect(subject_of(session), acl::rule_lists.at_connect.head);
  if (session.rule != nullptr && !choose_upstream(session)) {
    session_close(session, both_sides);
    return;
  }
  await_first_bytes(session);
  // Its first bytes are often there already.
  session.client_input.suppose();
  session_on_readable(session);
  session_arm(session);
}

void session_close(TcpSession& session, Sides sides) {
  if (!session.in_use()) return;
  const bool client_ends = (sides & client_side) != 0 || session.s2c_left() == 0;
  const bool server_ends = (sides & server_side) != 0 || session.c2s_left() == 0;
  if (client_ends) end_side(session, client_side);
  if (server_ends) end_side(session, server_side);
  if (!session.in_use()) clear_slot(session);
}

void session_drop_upstream(TcpSession& session) {
  // What was not sent there goes to the next one.
  Buffer unsent = std::move(session.c2s_pending);
  if (!unsent.empty()) unsent.erase_front(session.c2s_sent);
  session.c2s_sent = 0;
  end_side(session, server_side);
  session.c2s_pending = std::move(unsent);
  release_upstream(session);
  session.upstream = {};
  session.tunnel_request.reset();
  session.connect_head_len = 0;
  session.server_input = {};
  session.c2s_cipher_state = session.s2c_cipher_state = httpmod::starting_key(std::time(nullptr));
}

TcpSession* claim_session() { return tcp_session_table.claim(); }

void submit_session(TcpSession& session) {
  session.mail.deliver = start_submitted;
  loop.post(session.mail);
}

void tcp_sweep() { loop.post(sweep_mail); }
void tcp_resume_throttled() { loop.post(resume_mail); }
void tcp_drain() { loop.post(drain_mail); }
bool tcp_drained() { return listener_closed.load(std::memory_order_acquire); }

void tcp_prepare() {
  const int slots = std::max(1, global.max_sessions);
  if (!tcp_session_table.allocate(static_cast<std::size_t>(slots))) start_up_failure("malloc()");
  if (!loop.open(2 * static_cast<std::size_t>(slots) + 1)) start_up_failure("epoll_create()");
  if (!alarm.open(loop)) start_up_failure("timerfd_create()");
  prepared = true;
  if (global.listen_fd < 0) return;
  set_listener_options(slots);
  if (!listener.open(loop, global.listen_fd)) start_up_failure("epoll_ctl()");
}

void tcp_attach_tun(void (*handler)(tun::TunRecord& record)) {
  if (!event::tun_attach(loop, handler)) start_up_failure("epoll_ctl()");
}

bool tcp_is_prepared() { return prepared; }

void tcp_event_loop() {
  for (;;) {
    const auto events = loop.wait(wait_limit_ms());
    // Last to first.
    for (auto event = events.rbegin(); event != events.rend(); ++event) dispatch(*event);
    run_waiting_sessions();
    ask_inputs_when_due();
    dial_overdue_sessions();
    loop.deliver_mail();
    listener.retry();
    event::tun_end_pass();
    release_ended();
    loop.end_pass();
  }
}

}  // namespace vrox::tcp
