// Finding the other running instances, by process name, and telling them to end.
#pragma once

#include <cstdint>

namespace vrox {

enum class InstanceSignal : std::uint8_t {
  kill,    // SIGTERM, and SIGKILL to what is still there half a second later
  reload,  // SIGUSR1: no new connections, and the end with the last session
};

// Signals every other process whose name is that of the program path's last
// part. 0, or 1 when /proc cannot be read. A name longer than the kernel keeps
// (15 bytes) never matches.
[[nodiscard]] int signal_instances(const char* program, InstanceSignal mode);

}  // namespace vrox
