#include "config/pattern.h"

#include <string>

namespace vrox::config {

const regex_t* compile_pattern(std::string_view expression) {
  auto* pattern = new regex_t;
  // By name: the numbers of the flags differ between C libraries.
  const int flags = REG_EXTENDED | REG_ICASE | REG_NEWLINE;
  if (regcomp(pattern, std::string(expression).c_str(), flags) == 0) return pattern;
  delete pattern;
  return nullptr;
}

}  // namespace vrox::config
