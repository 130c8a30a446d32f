// Whether to look again for an answer that is about to come, rather than to sleep.
//
// With one segment outstanding, a bulk download is as fast as the way from a segment
// to its acknowledgement is short. A sleep of a few microseconds makes it twice as
// long: both processors have to be woken. So who has just sent a large segment looks
// for a moment whether the client has taken it. Where that fails, because the
// client is slow or has no processor to run on, it is tried more and more seldom.
#pragma once

#include <algorithm>
#include <cstdint>

namespace vrox::tun {

class ShortWait {
 public:
  static constexpr std::int64_t patience_us = 80;
  static constexpr std::uint32_t most_skipped = 1024;

  // A large segment is sent. An answer to one before it counts no longer.
  void begin() {
    until_us_ = 0;
    is_on_ = left_to_skip_ == 0;
    if (!is_on_) --left_to_skip_;
  }

  // It is acknowledged.
  void end() {
    if (is_on_ && until_us_ != 0) skip_ = 0;
    is_on_ = false;
  }

  [[nodiscard]] bool is_on() const { return is_on_; }

  // Whether to look again. Gives up some time after it was asked first.
  [[nodiscard]] bool look_again(std::int64_t now_us) {
    if (!is_on_) return false;
    if (until_us_ == 0) until_us_ = now_us + patience_us;
    if (now_us < until_us_) return true;
    left_to_skip_ = skip_ = std::clamp(2 * skip_, 1U, most_skipped);
    is_on_ = false;
    return false;
  }

 private:
  bool is_on_ = false;
  std::int64_t until_us_ = 0;  // 0: nobody has looked yet
  std::uint32_t skip_ = 0;     // segments after the last failure
  std::uint32_t left_to_skip_ = 0;
};

}  // namespace vrox::tun
