#include "tun/short_wait.h"

#include <gtest/gtest.h>

namespace vrox::tun {
namespace {

constexpr std::int64_t start = 1000;
constexpr std::int64_t late = start + ShortWait::patience_us;

TEST(ShortWait, LastsUntilTheAnswerOrItsPatienceEnds) {
  ShortWait wait;
  EXPECT_FALSE(wait.is_on() || wait.look_again(start));
  wait.begin();
  EXPECT_TRUE(wait.look_again(start) && wait.look_again(late - 1));
  wait.begin();  // another segment, another wait
  EXPECT_TRUE(wait.look_again(late) && wait.look_again(late + 1));
  wait.end();
  EXPECT_FALSE(wait.is_on() || wait.look_again(late));
  wait.begin();
  EXPECT_TRUE(wait.look_again(start) && !wait.look_again(late));
  EXPECT_FALSE(wait.is_on());
}

TEST(ShortWait, IsTriedMoreAndMoreSeldomWhereItFails) {
  ShortWait wait;
  const auto sends_until_a_wait = [&wait] {
    std::uint32_t sends = 1;
    for (wait.begin(); !wait.is_on(); wait.begin()) ++sends;
    return sends;
  };
  const auto fail = [&wait] { EXPECT_TRUE(wait.look_again(start) && !wait.look_again(late)); };
  for (std::uint32_t skipped = 0; skipped < 2 * ShortWait::most_skipped;
       skipped = std::max(1U, 2 * skipped)) {
    EXPECT_EQ(sends_until_a_wait(), 1 + std::min(skipped, ShortWait::most_skipped));
    fail();
  }
  (void)sends_until_a_wait();
  wait.end();  // before anybody looked: that proves nothing
  EXPECT_EQ(sends_until_a_wait(), 1);
  fail();
  EXPECT_EQ(sends_until_a_wait(), 1 + ShortWait::most_skipped);
  EXPECT_TRUE(wait.look_again(start));
  wait.end();  // one success, and it is trusted again
  EXPECT_EQ(sends_until_a_wait(), 1);
  fail();
  EXPECT_EQ(sends_until_a_wait(), 2);
}

}  // namespace
}  // namespace vrox::tun
