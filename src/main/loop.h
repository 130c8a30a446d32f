// One thread's event loop: an epoll set, a mailbox for the other threads, and
// the descriptors that wait to be closed.
//
// open() and post() before the thread starts or from any thread; everything
// else is the owner thread's. A pass is
//
//   for (event : loop.wait(timeout), last to first) dispatch it
//   loop.deliver_mail()
//   loop.end_pass()
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vrox {

// The two registrations of edge-triggered sockets: 0x80000001 while idle, and
// 0x80000005 while connecting or while output is pending.
constexpr std::uint32_t watch_input = EPOLLIN | EPOLLET;
constexpr std::uint32_t watch_both = EPOLLIN | EPOLLOUT | EPOLLET;

// A message to a loop: part of the slot or record that it is about, so that
// posting never allocates. It belongs to the mailbox from post() until
// `deliver` is called on the owner's thread, which may post it again.
struct Mail {
  void (*deliver)(Mail& mail) = nullptr;
  Mail* next = nullptr;
  std::atomic<bool> posted = false;
};

// Takes up to `count` bytes that have come out of a stream socket, in the kernel and
// without a copy. How many; 0 at the end; -1 with errno.
[[nodiscard]] ssize_t discard_input(int fd, std::size_t count);

class Loop {
 public:
  // Creates the epoll set and the mailbox. False with errno when the kernel
  // refuses. `max_events` bounds what one wait() returns.
  [[nodiscard]] bool open(std::size_t max_events);

  // False with errno when the kernel refuses.
  [[nodiscard]] bool watch(int fd, std::uint32_t mask, std::uint64_t data);
  [[nodiscard]] bool rewatch(int fd, std::uint32_t mask, std::uint64_t data);
  void unwatch(int fd);

  // Events of one epoll_wait; none when it was interrupted. -1: no time-out.
  [[nodiscard]] std::span<const epoll_event> wait(int timeout_ms);
  void deliver_mail();
  void end_pass() { close_retired(); }

  // From any thread and from signal handlers. False when the message is
  // already in the mailbox: the owner will see it once, which is enough.
  bool post(Mail& mail);

  // For the descriptor of a connection that is over. It leaves the set and is
  // closed at the end of the pass, by when it has been read empty, unless the
  // peer's end was read already: closing a socket that still holds input resets
  // the connection and throws away what the peer has not got yet. Slots are given
  // back before that, so that a peer who sees the end finds a place to come back to.
  void retire(int fd, bool at_end = false);

 private:
  void close_retired();

  int epoll_fd_ = -1;
  int wake_fd_ = -1;  // written when the mailbox was empty
  epoll_event* events_ = nullptr;
  int max_events_ = 0;
  std::atomic<Mail*> mailbox_ = nullptr;  // newest first
  struct Retired {
    int fd = -1;
    bool at_end = false;
  };
  std::array<Retired, 64> retired_{};
  std::size_t retired_count_ = 0;
};

}  // namespace vrox
