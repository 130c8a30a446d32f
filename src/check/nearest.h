// What somebody may have meant.
#pragma once

#include <span>
#include <string_view>

namespace vrox::check {

// The candidate that takes the fewest letters to add, drop, change or swap, without
// regard to case; empty when none is near.
[[nodiscard]] std::string_view nearest(std::string_view word,
                                       std::span<const std::string_view> candidates);

}  // namespace vrox::check
