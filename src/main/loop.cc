#include "main/loop.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <new>

namespace vrox {

namespace {
constexpr std::uint64_t mailbox_data = UINT64_MAX;  // no descriptor and no record has this value

// A peer that goes on sending does not get to keep the loop here.
void read_empty(int fd) {
  constexpr int attempts = 4;
  for (int i = 0; i < attempts; ++i) {
    if (discard_input(fd, INT_MAX) < 1) return;
  }
}
}  // namespace

// Not through the C library's recv(): to ThreadSanitizer the null address there is
// memory that several threads write.
ssize_t discard_input(int fd, std::size_t count) {
  return syscall(SYS_recvfrom, fd, nullptr, count, MSG_TRUNC | MSG_DONTWAIT, nullptr, nullptr);
}

bool Loop::open(std::size_t max_events) {
  max_events_ = static_cast<int>(std::min<std::size_t>(max_events, INT_MAX));
  events_ = new (std::nothrow) epoll_event[static_cast<std::size_t>(max_events_)];
  if (events_ == nullptr) return false;
  epoll_fd_ = epoll_create(max_events_);
  if (epoll_fd_ == -1) return false;
  wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  return wake_fd_ != -1 && watch(wake_fd_, watch_input, mailbox_data);
}

bool Loop::watch(int fd, std::uint32_t mask, std::uint64_t data) {
  epoll_event event{.events = mask, .data = {.u64 = data}};
  return epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool Loop::rewatch(int fd, std::uint32_t mask, std::uint64_t data) {
  epoll_event event{.events = mask, .data = {.u64 = data}};
  return epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event) == 0;
}

void Loop::unwatch(int fd) {
  epoll_event unused{};
  (void)epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, &unused);
}

std::span<const epoll_event> Loop::wait(int timeout_ms) {
  const int ready = epoll_wait(epoll_fd_, events_, max_events_, timeout_ms);
  if (ready < 1) return {};
  auto count = static_cast<std::size_t>(ready);
  // The mailbox is emptied by deliver_mail() in every pass; being edge-triggered,
  // its event needs no read to be armed again.
  const auto mail = std::find_if(events_, events_ + count, [](const epoll_event& event) {
    return event.data.u64 == mailbox_data;
  });
  if (mail != events_ + count) {
    std::copy(mail + 1, events_ + count, mail);
    --count;
  }
  return {events_, count};
}

void Loop::deliver_mail() {
  Mail* newest = mailbox_.exchange(nullptr, std::memory_order_acquire);
  Mail* oldest = nullptr;
  while (newest != nullptr) {  // turn it round: messages are delivered as they were posted
    Mail* older = newest->next;
    newest->next = oldest;
    oldest = newest;
    newest = older;
  }
  while (oldest != nullptr) {
    Mail& mail = *oldest;
    oldest = oldest->next;
    mail.posted.store(false, std::memory_order_release);
    mail.deliver(mail);
  }
}

bool Loop::post(Mail& mail) {
  if (mail.posted.exchange(true, std::memory_order_acq_rel)) return false;
  Mail* head = mailbox_.load(std::memory_order_relaxed);
  do {
    mail.next = head;
  } while (!mailbox_.compare_exchange_weak(head, &mail, std::memory_order_acq_rel));
  if (head == nullptr) {
    const std::uint64_t one = 1;
    // Cannot fail but by overflow, and then the loop is awake anyway.
    [[maybe_unused]] const ssize_t written = write(wake_fd_, &one, sizeof one);
  }
  return true;
}

void Loop::retire(int fd, bool at_end) {
  if (retired_count_ == retired_.size()) close_retired();
  retired_[retired_count_++] = {fd, at_end};
}

// Closing sends the end of the stream and takes the descriptor out of the set:
// nobody else holds a copy of it.
void Loop::close_retired() {
  for (std::size_t i = 0; i < retired_count_; ++i) {
    const Retired& retired = retired_[i];
    if (!retired.at_end) read_empty(retired.fd);
    (void)close(retired.fd);
  }
  retired_count_ = 0;
}

}  // namespace vrox
