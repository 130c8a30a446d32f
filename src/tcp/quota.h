// What a rule's `maxData` and `maxSpeed` leave of a session's writes. The counts
// are shared by all worker processes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "acl/rule.h"
#include "tcp/session.h"

namespace vrox::tcp {

// No byte may be written any more, in either direction.
[[nodiscard]] inline bool data_used_up(const acl::Rule& rule) {
  return rule.data_left != nullptr && rule.data_left->load(std::memory_order_relaxed) == 0;
}

[[nodiscard]] inline bool is_limited(const acl::Rule& rule) {
  return rule.data_left != nullptr || rule.speed_limit != nullptr;
}

// How much of a write this second's allowance leaves, taken out of it before the
// write, so that workers writing at once do not pass the limit together. A write
// that is cut, to 0 when nothing is left, throttles the session.
[[nodiscard]] std::size_t take_allowance(TcpSession& session, std::size_t size);

// Counts a write, with its result, of as much as was allowed.
void count_written(const acl::Rule& rule, std::size_t allowed, ssize_t written);

}  // namespace vrox::tcp
