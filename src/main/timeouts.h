// Which services sweep idle slots, and how often. The switches are written while
// the configuration is read and read-only afterwards.
#pragma once

#include <cstdint>

namespace vrox {

// Between two sweeps, and between two looks of a draining process for open
// sessions. The tests build a program with a shorter one.
#ifndef VROX_SWEEP_SECONDS
#define VROX_SWEEP_SECONDS 60
#endif
constexpr unsigned sweep_seconds = VROX_SWEEP_SECONDS;

// Interrupted or not.
void sleep_whole(unsigned seconds);

enum class SweepBit : std::uint8_t { tcp = 1, http_udp = 2, dns = 4, socks5 = 8 };

extern std::uint8_t timeout_mask;

// A value of 1 or more is stored and switches the service's sweep on; a smaller
// one stores 0 and switches it off.
void set_timeout(SweepBit service, std::int32_t value, std::int32_t& timeout);

[[nodiscard]] inline bool sweeps(SweepBit service) {
  return (timeout_mask & static_cast<std::uint8_t>(service)) != 0;
}
inline void clear_sweep(SweepBit service) {
  timeout_mask = static_cast<std::uint8_t>(timeout_mask & ~static_cast<unsigned>(service));
}

}  // namespace vrox
