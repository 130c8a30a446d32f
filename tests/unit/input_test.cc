#include "tcp/input.h"

#include <gtest/gtest.h>

namespace vrox::tcp {
namespace {

constexpr std::size_t message = 64;
constexpr std::size_t large = 4096;

// Events that each told of one message; whether the last was taken for all there is.
bool converse(Input& input, int messages) {
  for (int i = 1; i < messages; ++i) {
    input.tell(false);
    (void)input.took(message);
    input.empty();
  }
  input.tell(false);
  return input.took(message);
}

int messages_until_trusted(Input input) {
  int messages = 1;
  while (!converse(input, 1)) ++messages;
  return messages;
}

TEST(Input, IsReadUntilItIsEmptyBeforeItIsTrusted) {
  Input input;
  EXPECT_FALSE(converse(input, 1));
  EXPECT_TRUE(input.readable());  // there may be more, or the end
  input.empty();
  EXPECT_FALSE(input.readable());
  input.ask();
  EXPECT_FALSE(input.readable()) << "a read has said so";
  EXPECT_EQ(messages_until_trusted({}), 17);
}

TEST(Input, IsAskedLaterUnlessAnEventCameFirst) {
  Input input;
  EXPECT_TRUE(converse(input, 20));
  EXPECT_FALSE(input.readable());
  input.ask();
  EXPECT_TRUE(input.readable());
  input.empty();
  EXPECT_TRUE(converse(input, 1)) << "there was nothing: it is trusted as before";
  input.tell(false);
  EXPECT_TRUE(input.readable());
  input.empty();
  input.ask();
  EXPECT_FALSE(input.readable()) << "the event's own read has answered";
}

TEST(Input, LosesTrustWhenItIsNoConversation) {
  struct Case {
    const char* reason;
    void (*happens)(Input& input);
  };
  const Case cases[] = {
      {"a large message",
       [](Input& input) {
         input.tell(false);
         EXPECT_FALSE(input.took(large));
       }},
      {"more behind a message",
       [](Input& input) {
         input.tell(false);
         (void)input.took(message);
         EXPECT_FALSE(input.took(message));
       }},
      {"more when it is asked",
       [](Input& input) {
         (void)converse(input, 1);
         input.ask();
         EXPECT_FALSE(input.took(message));
       }},
      {"an end that an event tells of",
       [](Input& input) {
         input.tell(true);
         EXPECT_FALSE(input.took(message));
         EXPECT_TRUE(input.readable());
       }},
  };
  for (const Case& lost : cases) {
    SCOPED_TRACE(lost.reason);
    Input input;
    EXPECT_TRUE(converse(input, 20));
    lost.happens(input);
    EXPECT_GE(messages_until_trusted(input), 16);
  }
}

}  // namespace
}  // namespace vrox::tcp
