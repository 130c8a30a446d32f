#include "main/timeouts.h"

#include <unistd.h>

namespace vrox {

std::uint8_t timeout_mask = 0;

void sleep_whole(unsigned seconds) {
  while (seconds != 0) seconds = sleep(seconds);
}

void set_timeout(SweepBit service, std::int32_t value, std::int32_t& timeout) {
  if (value >= 1) {
    timeout = value;
    timeout_mask = static_cast<std::uint8_t>(timeout_mask | static_cast<unsigned>(service));
  } else {
    timeout = 0;
    clear_sweep(service);
  }
}

}  // namespace vrox
