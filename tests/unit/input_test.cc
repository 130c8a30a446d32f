#include "tcp/input.h"

#include <gtest/gtest.h>

namespace vrox::tcp {
namespace {

constexpr std::size_t message = 64;
constexpr std::size_t large = 4096;

// Events that each told of one message; whether the last was taken for all there is.
bool converse(Input& input, int messages) {
  for (int i = 1; i < messages; ++i) {
    input.told(false);
    (void)input.took(message);
    input.emptied();
  }
  input.told(false);
  return input.took(message);
}

int messages_until_trusted(Input input) {
  for (int messages = 1; messages < 100; ++messages) {
    if (converse(input, 1)) return messages;
  }
  return 0;
}

TEST(Input, IsReadUntilItIsEmptyBeforeItIsTrusted) {
  Input input;
  EXPECT_FALSE(converse(input, 1));
  EXPECT_TRUE(input.readable());  // there may be more, or the end
  input.emptied();
  EXPECT_FALSE(input.readable());
  EXPECT_FALSE(input.ask() || input.readable()) << "a read has said so";
  EXPECT_EQ(messages_until_trusted({}), 17);
}

TEST(Input, IsAskedWhenItIsSilentUnlessAnEventCameFirst) {
  Input input;
  EXPECT_TRUE(converse(input, 20));
  EXPECT_TRUE(input.ask()) << "there were messages";
  EXPECT_FALSE(input.readable());
  EXPECT_FALSE(input.ask());
  EXPECT_TRUE(input.readable());
  input.emptied();
  EXPECT_TRUE(converse(input, 1)) << "there was nothing: it is trusted as before";
  input.told(false);
  EXPECT_TRUE(input.readable());
  input.emptied();
  EXPECT_FALSE(input.ask() || input.readable()) << "the event's own read has answered";
  EXPECT_TRUE(converse(input, 1) && input.ask() && !input.ask());
  input.emptied();
  EXPECT_FALSE(converse(input, 1)) << "two messages between two times are not worth it";
}

TEST(Input, LosesTrustWhenItIsNoConversation) {
  struct Case {
    const char* reason;
    void (*happens)(Input& input);
  };
  const Case cases[] = {
      {"a large message",
       [](Input& input) {
         input.told(false);
         EXPECT_FALSE(input.took(large));
       }},
      {"more behind a message",
       [](Input& input) {
         input.told(false);
         (void)input.took(message);
         EXPECT_FALSE(input.took(message));
       }},
      {"more when it is asked",
       [](Input& input) {
         (void)converse(input, 1);
         EXPECT_TRUE(input.ask() && !input.ask());
         EXPECT_FALSE(input.took(message));
       }},
      {"an end that an event tells of",
       [](Input& input) {
         input.told(true);
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
