// Time for waits and deadlines.
#pragma once

#include <cstdint>
#include <ctime>

namespace vrox {

// Milliseconds since some point in the past; never set back.
[[nodiscard]] inline std::int64_t monotonic_ms() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// The same clock in microseconds.
[[nodiscard]] inline std::int64_t monotonic_us() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace vrox
