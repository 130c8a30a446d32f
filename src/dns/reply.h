// Replies that are made here, for queries that were looked up by HTTP.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "dns/message.h"
#include "dns/question.h"

namespace vrox::dns {

// The name takes at most two bytes more than its dotted text, so that a reply
// with one record always fits.
using ReplyBuffer = std::array<std::uint8_t, max_message>;

// An answer to a question of type A or AAAA; the latter gets ::ffff:a.b.c.d. The
// result is the reply's part of `buffer`.
[[nodiscard]] std::span<const std::uint8_t> build_answer(
    ReplyBuffer& buffer, std::span<const std::uint8_t> query, const Question& question,
    const std::array<std::uint8_t, 4>& address);

// "Server failure".
[[nodiscard]] std::span<const std::uint8_t> build_failure(ReplyBuffer& buffer,
                                                          std::span<const std::uint8_t> query,
                                                          const Question& question);

}  // namespace vrox::dns
