// What a target demands of the parser beyond not crashing.
#pragma once

#include <cstdlib>

namespace vrox::fuzz {

inline void check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace vrox::fuzz
