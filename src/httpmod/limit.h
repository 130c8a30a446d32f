// A bound on what a request can grow to by placeholders that repeat: enough for
// any real use, too little to hold up other sessions or to fill the memory.
#pragma once

#include <cstddef>
#include <string_view>

#include "main/buffer.h"

namespace vrox::httpmod {

constexpr std::size_t max_growth = std::size_t{4} << 20;

// replace_all, refused when the text would grow by more than max_growth.
[[nodiscard]] bool replace_within_limit(Buffer& text, std::string_view pattern,
                                        std::string_view replacement);

// Buffer::append, refused when the text would become longer than an original
// text and max_growth together.
[[nodiscard]] bool append_within_limit(Buffer& text, std::string_view bytes,
                                       std::size_t original_size);

}  // namespace vrox::httpmod
