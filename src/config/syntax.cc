#include "config/syntax.h"

#include <cstdio>
#include <cstdlib>

#include "main/helpers.h"

namespace vrox::config {

namespace {

struct Escape {
  char letter;
  char byte;
};

// Walked in this order. The last entry can find nothing more; files written for
// other ends of a tunnel rely on exactly these eight, so none is added.
constexpr std::array<Escape, 8> escapes{{
    {'r', '\r'},
    {'n', '\n'},
    {'b', '\b'},
    {'v', '\v'},
    {'f', '\f'},
    {'t', '\t'},
    {'a', '\a'},
    {'b', '\b'},
}};

// The length that is left.
std::size_t replace_escape(std::span<char> text, Escape escape) {
  std::size_t to = 0;
  for (std::size_t from = 0; from < text.size(); ++from, ++to) {
    const bool hit =
        text[from] == '\\' && from + 1 < text.size() && text[from + 1] == escape.letter;
    text[to] = hit ? escape.byte : text[from];
    if (hit) ++from;
  }
  return to;
}

}  // namespace

void line_error(std::string_view key, std::optional<std::string_view> value) {
  const std::string_view shown = value.value_or("(null)");
  (void)std::fprintf(stderr, "error line: [%.*s = %.*s]\n", static_cast<int>(key.size()),
                     key.data(), static_cast<int>(shown.size()), shown.data());
  std::exit(1);
}

bool is_key(std::string_view key, std::string_view keyword) {
  return starts_with_ignoring_case(key, keyword);
}

std::optional<AddressPort> split_address_port(std::string_view value) {
  const std::size_t colon = value.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  return AddressPort{.address = value.substr(0, colon),
                     .port = static_cast<std::uint16_t>(to_number(value.substr(colon + 1)))};
}

bool has_option(std::string_view list, std::string_view option) {
  bool found = false;
  for_each_token(list, '|', [&](std::string_view token) {
    found = found || starts_with_ignoring_case(token, option);
  });
  return found;
}

std::string_view unescape(std::span<char> value) {
  std::size_t length = value.size();
  for (const Escape escape : escapes) length = replace_escape(value.first(length), escape);
  if (length < value.size()) value[length] = '\0';
  return {value.data(), length};
}

}  // namespace vrox::config
