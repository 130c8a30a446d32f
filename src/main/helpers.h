// Small text helpers used across the daemon.
#pragma once

#include <optional>
#include <string_view>

#include "main/buffer.h"

namespace vrox {

// TAB, LF, CR and space: what the configuration file and its values call blank.
constexpr std::string_view whitespace = "\t\n\r ";

// Reads a file whole. Empty when it cannot be opened or memory is short, which
// is reported on standard error as "fopen()" or "malloc()".
[[nodiscard]] std::optional<Buffer> read_whole_file(const char* path);

// The text from its first non-blank byte on; empty when there is none.
[[nodiscard]] std::string_view skip_whitespace(std::string_view text);

// Where `pattern` stands at or behind `from`; npos when it does not. In linear
// time also for long patterns, which may come from a peer.
[[nodiscard]] std::size_t find_bytes(std::string_view text, std::string_view pattern,
                                     std::size_t from);

// Replaces every occurrence of `pattern`, front to back; what was inserted is
// never searched again. One pass, whatever the number of occurrences. An empty
// pattern replaces nothing. False when memory is short; the text is unchanged then.
[[nodiscard]] bool replace_all(Buffer& text, std::string_view pattern,
                               std::string_view replacement);

// Like atoi: blanks, a sign, digits; 0 where no number stands. A number too
// large for an int keeps its low bits, as the C library's does.
[[nodiscard]] int to_number(std::string_view text);

// Comparisons without regard to the case of ASCII letters.
[[nodiscard]] bool equals_ignoring_case(std::string_view a, std::string_view b);
[[nodiscard]] bool starts_with_ignoring_case(std::string_view text, std::string_view prefix);

}  // namespace vrox
