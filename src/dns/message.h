// DNS messages (RFC 1035, section 4) as far as a client needs them: one question
// out, addresses in. Pure: they know no socket and no slot.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace vrox::dns {

constexpr std::uint16_t type_a = 1;
constexpr std::uint16_t type_aaaa = 28;
constexpr std::size_t max_message = 512;  // over UDP

struct ResolvedAddress {
  std::uint16_t type = 0;                // type_a or type_aaaa
  std::array<std::uint8_t, 16> bytes{};  // 4 of them for an A record
};

// Builds a query: recursion desired, one question, class IN. The result is the
// length of the message, 0 when the name has an empty or overlong label or does
// not fit.
[[nodiscard]] std::size_t encode_query(std::span<std::uint8_t> message, std::uint16_t id,
                                       std::string_view name, std::uint16_t type);

// Appends the addresses of the wanted type among an answer's records and returns
// how many those were: 0 when there are none of this type, -1 when the message
// is malformed (then nothing is appended).
[[nodiscard]] int decode_answer(std::span<const std::uint8_t> message, std::uint16_t type,
                                std::vector<ResolvedAddress>& list);

// The first address of the wanted type, without an allocation.
[[nodiscard]] std::optional<ResolvedAddress> first_address(std::span<const std::uint8_t> message,
                                                           std::uint16_t type);

// The question of a message: its name, type and class as they stand in it.
// Empty when the message ends inside it or its question count is 0.
[[nodiscard]] std::optional<std::span<const std::uint8_t>> question_bytes(
    std::span<const std::uint8_t> message);

// Whether a message has the identifier and repeats the question of `query`, a
// message of encode_query, without regard to the case of the name; a late or
// forged answer does not. One without a question and without answers, by which
// servers refuse, needs the identifier only.
[[nodiscard]] bool answers_query(std::span<const std::uint8_t> message,
                                 std::span<const std::uint8_t> query);

}  // namespace vrox::dns
