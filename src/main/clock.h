// Time for waits and deadlines.
#pragma once

#include <cstdint>
#include <ctime>

namespace vrox {

// Microseconds since some point in the past; never set back.
[[nodiscard]] inline std::int64_t monotonic_us() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

[[nodiscard]] inline std::int64_t monotonic_ms() { return monotonic_us() / 1000; }

}  // namespace vrox
