// A listening descriptor in a loop's epoll set: level-triggered EPOLLIN, its
// data the descriptor's number. Taken out while no slot is free, so that waiting
// connections stay in the kernel's backlog, and while descriptors have run out.
#pragma once

#include "main/address.h"
#include "main/loop.h"

namespace vrox {

// Ends TCP_DEFER_ACCEPT on a listening descriptor. What the kernel still holds
// back is handed out with its first bytes, whatever comes anew at once.
void stop_deferring(int listen_fd);

// Has the kernel drop new connection requests to a listening descriptor, silently,
// while those under way still complete. For all processes that share it.
void stop_admitting(int listen_fd);

class Listener {
 public:
  // False with errno when the kernel refuses.
  [[nodiscard]] bool open(Loop& loop, int fd);

  // The next waiting connection, non-blocking, and its peer's address; -1 when
  // there is none. Failures are reported as "accept()"; when descriptors or
  // memory have run out the listener also pauses instead of spinning.
  [[nodiscard]] int accept(SocketAddress& peer);

  void pause();
  void starve();  // pauses for a short while: descriptors or memory have run out
  void resume();  // when paused; otherwise nothing
  void close();   // for good

  [[nodiscard]] bool is(std::uint64_t event_data) const {
    return fd_ >= 0 && event_data == static_cast<std::uint64_t>(fd_);
  }
  [[nodiscard]] bool paused() const { return paused_; }

  // How long the loop may wait: descriptors can come free elsewhere in the
  // system, which no event tells. -1: no limit. retry() follows each wait.
  [[nodiscard]] int timeout_ms() const { return starved_ ? retry_ms : -1; }
  void retry();

 private:
  static constexpr int retry_ms = 100;

  Loop* loop_ = nullptr;
  int fd_ = -1;
  bool paused_ = false;
  bool starved_ = false;  // paused for want of descriptors
  std::int64_t starved_at_ms_ = 0;
};

}  // namespace vrox
