#include "main/services.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <optional>

#include "acl/rule.h"
#include "dns/global.h"
#include "dns/server.h"
#include "event/device.h"
#include "httpudp/global.h"
#include "httpudp/service.h"
#include "main/signals.h"
#include "main/threads.h"
#include "main/timeouts.h"
#include "socks5/global.h"
#include "socks5/server.h"
#include "tcp/global.h"
#include "tcp/session.h"
#include "tun/bridge.h"

namespace vrox {

constinit WorkerPlace worker_place;

namespace {

// The service thread that the main thread waits for. One for several services:
// the last started one counts, intended.
std::optional<pthread_t> joined_thread;

void* httpudp_thread(void*) { httpudp::httpudp_thread(); }
void* dns_thread(void*) { dns::dns_server_thread(); }
void* tcp_thread(void*) { tcp::tcp_event_loop(); }
void* socks5_thread(void*) { socks5::socks5_server_loop(); }

// ---- time-outs: each service's loop ends its own idle slots -----------------

void* sweeper_thread(void*) {
  for (;;) {
    sleep_whole(sweep_seconds);
    if (sweeps(SweepBit::dns) && dns::global.listen_fd >= 0) dns::dns_sweep();
    if (sweeps(SweepBit::http_udp)) httpudp::httpudp_sweep();
    if (sweeps(SweepBit::tcp) && tcp::tcp_is_prepared()) tcp::tcp_sweep();
    if (sweeps(SweepBit::socks5) && socks5::global.listen_fd >= 0) socks5::socks5_sweep();
  }
}

// ---- speed limits -----------------------------------------------------------

constexpr timespec short_while{.tv_sec = 0, .tv_nsec = 100'000};
constexpr int patience = 200;  // short whiles

void reset_speed(const acl::Rule& rule) {
  if (rule.speed_used != nullptr) rule.speed_used->store(0, std::memory_order_relaxed);
}

void reset_speeds() {
  reset_speed(tcp::global);
  for (const acl::Rule& rule : acl::rule_lists.at_connect) reset_speed(rule);
  for (const acl::Rule& rule : acl::rule_lists.on_request) reset_speed(rule);
}

// The next full second of the clock that all processes share: a rate loses nothing
// to the work of each second, and nobody looks for a new allowance too early.
std::uint64_t sleep_to_next_second() {
  timespec next{};
  (void)clock_gettime(CLOCK_MONOTONIC, &next);
  ++next.tv_sec;
  next.tv_nsec = 0;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
  }
  return static_cast<std::uint64_t>(next.tv_sec);
}

bool has_begun(std::uint64_t second) {
  return tcp::global.speed_second->load(std::memory_order_acquire) >= second;
}

// The last process begins the second for all, and the others wait for that; they
// do it themselves only when the last one has died.
void begin_second(std::uint64_t second) {
  for (int i = 0; !is_last_worker && i < patience && !has_begun(second); ++i) {
    (void)nanosleep(&short_while, nullptr);
  }
  if (has_begun(second)) return;
  reset_speeds();
  tcp::global.speed_second->store(second, std::memory_order_release);
}

// What is left of a small allowance is soon gone: each worker in turn is the first
// to ask for it.
void await_turn(std::uint64_t second) {
  constexpr long head_start_ns = 5'000'000;
  constexpr long longest_ns = 250'000'000;
  const auto workers = static_cast<long>(worker_place.count);
  const auto turn = static_cast<long>((second + worker_place.index) % worker_place.count);
  const timespec wait{.tv_sec = 0, .tv_nsec = turn * std::min(head_start_ns, longest_ns / workers)};
  (void)nanosleep(&wait, nullptr);
}

// Each process resumes its own sessions.
void* speed_thread(void*) {
  for (;;) {
    const std::uint64_t second = sleep_to_next_second();
    begin_second(second);
    await_turn(second);
    if (tcp::tcp_is_prepared()) tcp::tcp_resume_throttled();
  }
}

// ---- start --------------------------------------------------------------------

void* starter(void*) {
  block_handled_signals();
  const bool has_httpudp = !httpudp::global.destinations.empty();
  const bool has_dns = dns::global.listen_fd >= 0;
  const bool has_tcp = tcp::global.listen_fd >= 0;
  // One reader: a flow's packets must all come to where the flow is.
  const bool has_tun = event::tun_fd >= 0 && is_last_worker;
  const bool has_socks5 = socks5::global.listen_fd >= 0;
  // Tables, epoll sets and mailboxes first: no thread waits for another's.
  if (has_httpudp) {
    (void)std::puts("1");
    (void)std::fflush(stdout);
    httpudp::httpudp_init();
  }
  if (has_dns) dns::dns_prepare();
  if (has_tcp || has_tun) tcp::tcp_prepare();
  if (has_tun) tcp::tcp_attach_tun(tun::tun_packet_handler);
  if (has_socks5) socks5::socks5_prepare();

  if (has_httpudp) joined_thread = start_thread(httpudp_thread);
  if (has_dns) joined_thread = start_thread(dns_thread);
  if (has_tcp) joined_thread = start_thread(tcp_thread);
  // Flows are served without a listener too, but nobody waits for that: intended.
  if (has_tun && !has_tcp) start_thread(tcp_thread);
  if (has_socks5) start_thread(socks5_thread);
  if (tcp::global.speed_second != nullptr) start_thread(speed_thread);
  if (timeout_mask != 0) start_thread(sweeper_thread);
  return nullptr;
}

void join(pthread_t thread) { (void)pthread_join(thread, nullptr); }

}  // namespace

void run_services() {
  join(start_thread(starter));
  unblock_handled_signals();
  if (joined_thread) join(*joined_thread);
}

}  // namespace vrox
