// Host names in the configuration: a small blocking DNS client that runs while
// the file is read, before any service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "dns/message.h"

namespace vrox::acl {

// Asks the server named by VROX_INIT_CONFIG_DNS (a dotted IPv4 address, default
// 8.8.8.8) for the name's addresses: type 1 (A) or 28 (AAAA). Literal addresses
// are converted without asking. Appends what was found and returns how many
// those were: 0 when a literal is of the other family or the answer holds none
// of that type, -1 on failure. Waits up to three times 5 seconds.
[[nodiscard]] int resolve_at_load(std::vector<dns::ResolvedAddress>& list, std::string_view name,
                                  std::uint16_t type);

}  // namespace vrox::acl
