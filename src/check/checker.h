// Reads a configuration as the daemon does and gathers what is wrong with it, and
// what the daemon takes otherwise than it looks. Once per process: the records that
// the reading fills are global.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vrox::check {

struct Finding {
  std::size_t line = 0;  // line and column begin with 1; columns are bytes
  std::size_t column = 0;
  bool refused = false;  // the daemon would not start; otherwise a warning
  std::string text;
};

// In the order of the text. `ask` has host names looked up, as the daemon would.
[[nodiscard]] std::vector<Finding> check_configuration(std::string_view text, bool ask);

}  // namespace vrox::check
