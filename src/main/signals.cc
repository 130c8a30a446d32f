#include "main/signals.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "dns/global.h"
#include "dns/server.h"
#include "httpudp/global.h"
#include "httpudp/service.h"
#include "main/listener.h"
#include "main/services.h"
#include "main/stats.h"
#include "main/timeouts.h"
#include "socks5/global.h"
#include "socks5/server.h"
#include "tcp/global.h"
#include "tcp/session.h"
#include "tun/flow.h"

namespace vrox {

bool is_last_worker = true;

namespace {

constexpr std::array exit_signals{SIGTERM, SIGHUP, SIGINT, SIGABRT, SIGILL, SIGSEGV};
constexpr timespec short_while{.tv_sec = 0, .tv_nsec = 1'000'000};

sigset_t all_handled() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : exit_signals) sigaddset(&set, signal);
  sigaddset(&set, SIGUSR1);
  return set;
}

// The thread that saves.
constinit std::atomic<pid_t> saver = 0;

// The service threads do not block SIGABRT, so that one may come to another thread
// while the main thread saves (false), and one more from a save that fails.
bool become_saver() {
  const auto self = static_cast<pid_t>(syscall(SYS_gettid));
  pid_t other = 0;
  if (saver.compare_exchange_strong(other, self)) return true;
  if (other == self) _exit(EXIT_SUCCESS);
  return false;
}

// The worker behind this one writes the cache first, and this one appends. One
// that was not told to end as well is not waited for: whoever kills every process
// in turn gives each half a second.
void await_worker() {
  constexpr int attempts = 300;
  for (int i = 0; i < attempts && waitpid(-1, nullptr, WNOHANG) == 0; ++i) {
    (void)nanosleep(&short_while, nullptr);
  }
}

// After a drain the workers end far apart, whereas the last one's save empties the
// file. Can be cut short by the signals that end the process.
void await_drained_worker() {
  if (dns::global.cache_path == nullptr || is_last_worker) return;
  while (waitpid(-1, nullptr, 0) == -1 && errno == EINTR) {
  }
}

[[noreturn]] void save_and_exit() {
  end_periodic_saving();
  if (!tcp::global.save_path.empty() && is_last_worker) save_stats();
  if (dns::global.cache_path != nullptr) {
    if (!is_last_worker) await_worker();
    dns::dns_save_cache(!is_last_worker);
  }
  std::exit(EXIT_SUCCESS);
}

void end(int, siginfo_t* info, void*) {
  if (become_saver()) save_and_exit();
  // Told from outside, the thread goes on: the saver may need a word from it. One that
  // failed stays here.
  while (info->si_code != SI_USER) pause();
}

bool has_udp_listener() { return httpudp::global.tproxy_fd >= 0 || httpudp::global.socks5_fd >= 0; }

// The handshakes first: one that becomes a session leaves them only after it has
// its place among the sessions.
bool has_open_sessions() {
  if (dns::global.listen_fd >= 0 && dns::dns_open_queries() != 0) return true;
  if (has_udp_listener() && httpudp::httpudp_open_tunnels() != 0) return true;
  if (socks5::global.listen_fd >= 0 && socks5::socks5_open_handshakes() != 0) return true;
  if (tun::tun_unfinished_flows() != 0) return true;  // a socket's rest would be the kernel's
  return tcp::tcp_is_prepared() && tcp::tcp_session_table.in_use() != 0;
}

// With TCP_DEFER_ACCEPT a connection is established for its client before it is in
// any queue here, and closing the listener would reset it. Its first bytes, which
// clients of these listeners send unasked, are given the time to come in; `-r`
// leaves 100 ms before the next instance wants the address.
void admit_deferred() {
  constexpr timespec time_to_speak{.tv_sec = 0, .tv_nsec = 50'000'000};
  const bool tcp_defers = tcp::global.listen_fd >= 0 && tcp::global.defer_accept;
  const bool socks5_defers = socks5::global.listen_fd >= 0;
  if (tcp_defers) stop_deferring(tcp::global.listen_fd);
  if (socks5_defers) stop_deferring(socks5::global.listen_fd);
  if (tcp_defers || socks5_defers) (void)nanosleep(&time_to_speak, nullptr);
}

// A connection that came in between the last look into a queue and the end of its
// listener would be reset: requests that come now are sent again and reach the next
// instance. Workers share their listeners, and the others may want to go on.
void admit_no_more() {
  if (worker_place.count > 1) return;
  if (socks5::global.listen_fd >= 0) stop_admitting(socks5::global.listen_fd);
  if (tcp::global.listen_fd >= 0) stop_admitting(tcp::global.listen_fd);
  (void)nanosleep(&short_while, nullptr);
}

// The loops accept what waits in their queues and close their listeners; a
// handshake of the SOCKS5 server may become a session in between, so it is first.
void close_listeners() {
  if (socks5::global.listen_fd >= 0) {
    socks5::socks5_drain();
    while (!socks5::socks5_drained()) (void)nanosleep(&short_while, nullptr);
  }
  if (dns::global.listen_fd >= 0) {
    dns::dns_drain();
    while (!dns::dns_drained()) (void)nanosleep(&short_while, nullptr);
  }
  if (has_udp_listener()) {
    httpudp::httpudp_drain();
    while (!httpudp::httpudp_drained()) (void)nanosleep(&short_while, nullptr);
  }
  if (tcp::tcp_is_prepared()) {
    tcp::tcp_drain();
    while (!tcp::tcp_drained()) (void)nanosleep(&short_while, nullptr);
  }
}

[[noreturn]] void drain_and_exit(int) {
  admit_deferred();
  admit_no_more();
  close_listeners();
  while (has_open_sessions()) sleep_whole(sweep_seconds);
  await_drained_worker();
  const sigset_t handled = all_handled();
  pthread_sigmask(SIG_BLOCK, &handled, nullptr);
  if (become_saver()) save_and_exit();
  for (;;) pause();
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  (void)sigaction(signal, &action, nullptr);
}

void handle_end(int signal) {
  struct sigaction action {};
  action.sa_sigaction = end;
  action.sa_mask = all_handled();
  action.sa_flags = SA_SIGINFO;
  (void)sigaction(signal, &action, nullptr);
}

}  // namespace

void install_handlers() {
  handle(SIGPIPE, SIG_IGN);
  // A drain takes as long as the last session does, and can be cut short.
  handle(SIGUSR1, drain_and_exit);
  for (const int signal : exit_signals) handle_end(signal);
}

}  // namespace vrox
