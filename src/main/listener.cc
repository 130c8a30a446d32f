#include "main/listener.h"

#include <linux/filter.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "main/clock.h"

namespace vrox {

namespace {

bool is_exhausted(int error) {
  constexpr std::array codes{EMFILE, ENFILE, ENOBUFS, ENOMEM};
  return std::find(codes.begin(), codes.end(), error) != codes.end();
}

}  // namespace

void stop_deferring(int listen_fd) {
  const int off = 0;
  (void)setsockopt(listen_fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &off, sizeof off);
}

void stop_admitting(int listen_fd) {
  // The filter sees a segment from its TCP header on.
  constexpr std::uint32_t flags_offset = 13;
  constexpr std::uint32_t syn = 0x02;
  constexpr std::uint32_t whole = UINT32_MAX;
  std::array<sock_filter, 4> program{
      sock_filter{.code = BPF_LD | BPF_B | BPF_ABS, .jt = 0, .jf = 0, .k = flags_offset},
      sock_filter{.code = BPF_JMP | BPF_JSET | BPF_K, .jt = 1, .jf = 0, .k = syn},
      sock_filter{.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = whole},
      sock_filter{.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = 0},
  };
  const sock_fprog filter{.len = program.size(), .filter = program.data()};
  (void)setsockopt(listen_fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

bool Listener::open(Loop& loop, int fd) {
  loop_ = &loop;
  fd_ = fd;
  return loop.watch(fd, EPOLLIN, static_cast<std::uint64_t>(fd));
}

int Listener::accept(SocketAddress& peer) {
  for (;;) {
    socklen_t length = SocketAddress::size;
    const int fd = accept4(fd_, peer.raw(), &length, SOCK_NONBLOCK);
    if (fd != -1) return fd;
    const int reason = errno;
    if (reason == EINTR) continue;
    if (reason == EAGAIN) return -1;  // another worker was quicker
    std::perror("accept()");
    if (reason == ECONNABORTED) continue;  // the next one waits behind it
    if (is_exhausted(reason)) starve();
    return -1;
  }
}

void Listener::starve() {
  pause();
  starved_ = true;
  starved_at_ms_ = monotonic_ms();
}

void Listener::retry() {
  if (starved_ && monotonic_ms() - starved_at_ms_ >= retry_ms) resume();
}

void Listener::pause() {
  if (paused_ || fd_ < 0) return;
  loop_->unwatch(fd_);
  paused_ = true;
}

void Listener::resume() {
  if (!paused_ || fd_ < 0) return;
  starved_ = false;
  // Refused only for want of memory: the next slot that comes free tries again.
  paused_ = !loop_->watch(fd_, EPOLLIN, static_cast<std::uint64_t>(fd_));
  starved_ = paused_;
  if (starved_) starved_at_ms_ = monotonic_ms();
}

void Listener::close() {
  if (fd_ < 0) return;
  loop_->unwatch(fd_);
  (void)::close(fd_);
  fd_ = -1;
  paused_ = false;
  starved_ = false;
}

}  // namespace vrox
