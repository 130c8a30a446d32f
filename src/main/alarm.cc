#include "main/alarm.h"

#include <sys/timerfd.h>

namespace vrox {

bool Alarm::open(Loop& loop) {
  fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  // Setting it anew takes back what it rang, and edges need no read.
  return fd_ != -1 && loop.watch(fd_, watch_input, static_cast<std::uint64_t>(fd_));
}

void Alarm::set(int delay_ms) {
  if (set_) return;
  const itimerspec once{.it_interval = {},
                        .it_value = {.tv_sec = 0, .tv_nsec = delay_ms * 1'000'000L}};
  set_ = timerfd_settime(fd_, 0, &once, nullptr) == 0;
}

}  // namespace vrox
