// Texts as the bytes that travel, and back.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace vrox {

inline std::span<const std::uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline std::string text_of(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

inline std::string from_hex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

// Behind its length, 16 bits in the machine's byte order.
inline std::string with_length(const std::string& text) {
  const auto length = static_cast<std::uint16_t>(text.size());
  std::string bytes(sizeof length, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  return bytes + text;
}

}  // namespace vrox
