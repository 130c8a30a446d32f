// Parts of the configuration syntax that the sections' own key parsers share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "main/address.h"
#include "main/buffer.h"

namespace vrox::config {

// Prints "error line: [key = value]" on standard error and ends the process
// with status 1. Without a value it prints "(null)" in its place.
[[noreturn]] void line_error(std::string_view key, std::optional<std::string_view> value);

// Keys are compared without case and on the keyword's length only, so
// "timeout_extra" is `timeout`.
[[nodiscard]] bool is_key(std::string_view key, std::string_view keyword);

// addr:port, split at the last ':'. The address is left as text: a listener
// that cannot be bound says so itself.
struct AddressPort {
  std::string_view address;
  std::uint16_t port = 0;  // the low 16 bits of the number
};
[[nodiscard]] std::optional<AddressPort> split_address_port(std::string_view value);

// Calls `visit` for each token of a list such as "TFO|TDA".
template <class Visit>
void for_each_token(std::string_view list, char separator, Visit visit) {
  for (;;) {
    const std::size_t end = list.find(separator);
    visit(list.substr(0, end));
    if (end == std::string_view::npos) return;
    list.remove_prefix(end + 1);
  }
}

// Whether an option list joined by '|' holds a token that begins with `option`.
[[nodiscard]] bool has_option(std::string_view list, std::string_view option);

// Replaces the escape sequences \r \n \b \v \f \t \a by their bytes, in place,
// and returns the shorter value, again followed by a terminator. There is none
// for the backslash itself.
[[nodiscard]] std::string_view unescape(std::span<char> value);

}  // namespace vrox::config
