// Reads the configuration, once, before any service or worker process exists:
// fills the global records and the lists of rules and modules, and opens what
// is to be open.
#pragma once

#include <span>

#include "config/watcher.h"

namespace vrox::config {

// False when the process must end with status 1; what there is to say has been
// said. Lines that cannot be applied end the process themselves. The lists are
// resolved, and still lists (close_rings).
[[nodiscard]] bool read_configuration(const char* path);

// The same for a text that is followed by a terminator. It is edited in place
// and must stay: settings are views of it.
[[nodiscard]] bool read_configuration_text(std::span<char> text);

// The same in front of a watcher who has the last word on what is wrong.
[[nodiscard]] bool read_configuration_text(std::span<char> text, Watcher& watcher);

}  // namespace vrox::config
