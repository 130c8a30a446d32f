#include "httpmod/limit.h"

#include "main/helpers.h"

namespace vrox::httpmod {

namespace {

bool fits(std::string_view text, std::string_view pattern, std::string_view replacement) {
  if (pattern.empty() || replacement.size() <= pattern.size()) return true;
  const std::size_t growth = replacement.size() - pattern.size();
  std::size_t room = max_growth / growth;                 // for so many occurrences
  if (text.size() / pattern.size() <= room) return true;  // there cannot be more
  for (std::size_t hit = find_bytes(text, pattern, 0); hit != std::string_view::npos;
       hit = find_bytes(text, pattern, hit + pattern.size())) {
    if (room-- == 0) return false;
  }
  return true;
}

}  // namespace

bool replace_within_limit(Buffer& text, std::string_view pattern, std::string_view replacement) {
  return fits(text.view(), pattern, replacement) && replace_all(text, pattern, replacement);
}

bool append_within_limit(Buffer& text, std::string_view bytes, std::size_t original_size) {
  const std::size_t limit = original_size + max_growth;
  return bytes.size() <= limit && text.size() <= limit - bytes.size() && text.append(bytes);
}

}  // namespace vrox::httpmod
