// What the keys take that do not take everything.
#pragma once

#include <string_view>

namespace vrox::check {

// For a message such as "takes ..."; empty when nothing helpful is known.
[[nodiscard]] std::string_view form_of(std::string_view keyword);

}  // namespace vrox::check
