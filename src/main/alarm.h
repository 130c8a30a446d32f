// A loop's short timer: one for whatever came up meanwhile, so that a busy loop pays
// for it once in a while and an idle one never (timerfd_create(2)).
#pragma once

#include <cstdint>

#include "main/loop.h"

namespace vrox {

class Alarm {
 public:
  // False with errno when the kernel refuses.
  [[nodiscard]] bool open(Loop& loop);

  // Rings once, so many milliseconds from now, below 1000; one that is set already
  // stays as it is.
  void set(int delay_ms);
  // For the event. It is due from then on until it is stopped, and can be set anew.
  void rang() { due_ = true; }
  [[nodiscard]] bool is_due() const { return due_; }
  void stop() { set_ = due_ = false; }

  [[nodiscard]] bool is(std::uint64_t event_data) const {
    return fd_ >= 0 && event_data == static_cast<std::uint64_t>(fd_);
  }

 private:
  int fd_ = -1;
  bool set_ = false;
  bool due_ = false;
};

}  // namespace vrox
