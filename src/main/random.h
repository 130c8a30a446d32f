// Unpredictable numbers, and hashes that a peer cannot aim at.
#pragma once

#include <cstdint>
#include <span>

namespace vrox {

// From the kernel's generator; from the clock where it has none.
void fill_random(std::span<std::uint8_t> bytes);

// SipHash-1-3 under a key of this process: no peer can choose bytes that crowd
// one bucket of a table.
[[nodiscard]] std::uint64_t keyed_hash(std::span<const std::uint8_t> bytes);

}  // namespace vrox
