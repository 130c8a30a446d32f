#include "tcp/quota.h"

#include <algorithm>

namespace vrox::tcp {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

// Not below 0: the second may have begun anew since the allowance was taken.
void take_away(acl::SharedCell& cell, std::uint64_t count) {
  std::uint64_t value = cell.load(relaxed);
  while (!cell.compare_exchange_weak(value, value - std::min(value, count), relaxed)) {
  }
}

}  // namespace

std::size_t take_allowance(TcpSession& session, std::size_t size) {
  const acl::Rule& rule = *session.rule;
  if (rule.speed_limit == nullptr) return size;
  const std::uint64_t limit = rule.speed_limit->load(relaxed);
  std::uint64_t used = rule.speed_used->load(relaxed);
  std::uint64_t part = 0;
  do {
    part = std::min<std::uint64_t>(size, used < limit ? limit - used : 0);
  } while (part != 0 && !rule.speed_used->compare_exchange_weak(used, used + part, relaxed));
  if (part == 0 || part < size) session.throttled = true;
  return static_cast<std::size_t>(part);
}

void count_written(const acl::Rule& rule, std::size_t allowed, ssize_t written) {
  const std::size_t count = written > 0 ? static_cast<std::size_t>(written) : 0;
  if (rule.speed_used != nullptr && count < allowed) take_away(*rule.speed_used, allowed - count);
  if (rule.data_left != nullptr && count != 0) take_away(*rule.data_left, count);
}

}  // namespace vrox::tcp
