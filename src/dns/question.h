// The question of a query as the rules look at it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vrox::dns {

constexpr std::size_t max_dotted_name = 127;

struct Question {
  std::array<char, max_dotted_name + 1> dotted{};  // the labels joined by ".", terminated
  std::size_t dotted_length = 0;
  std::uint16_t type = 0;
  std::span<const std::uint8_t> bytes;  // name, type and class as they stand in the message

  [[nodiscard]] std::string_view name() const { return {dotted.data(), dotted_length}; }
};

// Empty when the message is a response or ends inside its question, when the
// name is empty, longer than max_dotted_name or compressed, or when the type is 0.
[[nodiscard]] std::optional<Question> read_question(std::span<const std::uint8_t> message);

}  // namespace vrox::dns
