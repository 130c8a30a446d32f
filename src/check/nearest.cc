#include "check/nearest.h"

#include <algorithm>
#include <vector>

#include "config/key_table.h"

namespace vrox::check {

namespace {

// Damerau's distance, restricted: nothing is changed again behind a swap.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before_last;
  std::vector<std::size_t> last;
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before_last.swap(last);
    last = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const auto same = [&](std::size_t x, std::size_t y) {
        return config::lower(a[x - 1]) == config::lower(b[y - 1]);
      };
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same(i, j) ? 0U : 1U)});
      if (i > 1 && j > 1 && same(i, j - 1) && same(i - 1, j)) {
        row[j] = std::min(row[j], before_last[j - 2] + 1);
      }
    }
  }
  return row.back();
}

}  // namespace

std::string_view nearest(std::string_view word, std::span<const std::string_view> candidates) {
  // A third of the letters may be wrong; with more, everything is near everything.
  std::size_t best = word.size() / 3 + 2;
  std::string_view found;
  for (const std::string_view candidate : candidates) {
    const std::size_t away = distance(word, candidate);
    if (away >= best || away >= candidate.size()) continue;
    best = away;
    found = candidate;
  }
  return found;
}

}  // namespace vrox::check
