// Regular expressions of conditions.
#pragma once

#include <regex.h>

#include <string_view>

namespace vrox::config {

// POSIX extended, case-insensitive, newline-sensitive; never freed. Null when
// the expression is invalid.
[[nodiscard]] const regex_t* compile_pattern(std::string_view expression);

}  // namespace vrox::config
