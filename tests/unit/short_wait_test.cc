#include "tun/short_wait.h"

#include <gtest/gtest.h>

namespace vrox::tun {
namespace {

constexpr std::int64_t soon = ShortWait::patience_us - 1;
constexpr std::int64_t late = ShortWait::patience_us;

TEST(ShortWait, LastsUntilTheAnswerOrItsPatienceEnds) {
  ShortWait wait;
  EXPECT_FALSE(wait.goes_on());
  wait.begin(1000);
  EXPECT_TRUE(wait.goes_on() && wait.goes_on_at(1000 + soon));
  wait.end();
  EXPECT_FALSE(wait.goes_on());
  wait.begin(2000);
  EXPECT_FALSE(wait.goes_on_at(2000 + late));
  EXPECT_FALSE(wait.goes_on());
}

TEST(ShortWait, IsTriedMoreAndMoreSeldomWhereItFails) {
  ShortWait wait;
  const auto sends_until_a_wait = [&wait] {
    std::uint32_t sends = 1;
    for (wait.begin(0); !wait.goes_on(); wait.begin(0)) ++sends;
    return sends;
  };
  std::uint32_t expected = 1;
  for (int failures = 0; failures < 20; ++failures) {
    EXPECT_EQ(sends_until_a_wait(), expected) << "after failure " << failures;
    EXPECT_FALSE(wait.goes_on_at(late));
    expected = failures == 0 ? 2 : std::min(2 * expected - 1, ShortWait::most_skipped + 1);
  }
  EXPECT_EQ(sends_until_a_wait(), ShortWait::most_skipped + 1);
  wait.end();  // one success, and it is trusted again
  EXPECT_EQ(sends_until_a_wait(), 1);
  EXPECT_FALSE(wait.goes_on_at(late));
  EXPECT_EQ(sends_until_a_wait(), 2);
}

}  // namespace
}  // namespace vrox::tun
