// The regular expression of a `regrep` directive, compiled once for as long as
// its text stays the same, and the replacement of its matches.
#pragma once

#include <regex.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "main/buffer.h"

namespace vrox::httpmod {

class CompiledPattern {
 public:
  CompiledPattern() = default;
  CompiledPattern(const CompiledPattern&) = delete;
  CompiledPattern& operator=(const CompiledPattern&) = delete;
  ~CompiledPattern() { drop(); }

  // Extended, without case, "." and lists stop at line ends. Compiles only when
  // the text differs from the last one. Null when it is no valid expression or
  // memory is short.
  [[nodiscard]] const regex_t* compile(std::string_view text);

 private:
  void drop();

  regex_t regex_{};
  Buffer text_;         // what regex_ was, or failed to be, compiled from
  bool known_ = false;  // text_ counts
  bool valid_ = false;  // regex_ holds memory
};

// Replaces every match in `text`, front to back; markers \1 to \9 in the
// replacement stand for the groups. Each search begins as at the start of a
// line, so that "^" also matches directly behind the previous match. False when
// memory is short or the result grows beyond the limit; the text is unchanged then.
[[nodiscard]] bool replace_matches(Buffer& text, const regex_t& regex,
                                   std::string_view replacement);

}  // namespace vrox::httpmod
