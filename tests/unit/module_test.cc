#include "tcp/module.h"

#include "configuration.h"

namespace vrox::tcp {
namespace {

using Modules = ConfigurationTest;

TEST_F(Modules, Destinations) {
  const struct {
    const char* why;
    const char* key;
    const char* value;
    const char* expected;  // "port" with "m" for IPv4-mapped, or the special word; empty: refused
  } cases[] = {
      {"IPv4 is stored as IPv4-mapped", "destAddr", "127.0.0.1:80", "m80"},
      {"brackets are allowed", "destAddr6", "[::1]:443", "443"},
      {"the other family finds none", "destAddr4", "::1:443", ""},
      {"where the client wanted to go", "destAddr", "original_dst", "original"},
      {"a blank may stand behind the word", "destAddr6", "Deny_network ", "deny"},
  };
  for (const auto& c : cases) {
    List<Destination> list;
    std::string seen;
    EXPECT_EQ(add_destinations(c.key, c.value, list), *c.expected != '\0') << c.why;
    for (const Destination& d : list) {
      if (d.original_dst) seen += "original";
      if (d.deny_network) seen += "deny";
      if (d.original_dst || d.deny_network) continue;
      EXPECT_EQ(d.address.family(), AF_INET6) << c.why;
      seen += (d.address.is_mapped_v4() ? "m" : "") + std::to_string(d.address.port());
    }
    EXPECT_EQ(seen, c.expected) << c.why;
  }
}

TEST(ModuleCredentials, BecomeAnRfc1929Message) {
  const std::string longest(255, 'x');
  const std::string too_long(256, 'x');
  const struct {
    const char* why;
    std::string value;
    std::string message;  // empty: refused
  } cases[] = {
      {"the first blank separates", "u p w", "\1\1u\3p w"},
      {"empty parts are parts", " ", std::string("\1\0\0", 3)},
      {"the longest parts that fit", longest + " " + longest,
       "\1\xff" + longest + "\xff" + longest},
      {"a user too long for its length byte", too_long + " p", ""},
      {"a password too long", "u " + too_long, ""},
  };
  for (const auto& c : cases) {
    Buffer message;
    EXPECT_EQ(parse_user_pass(c.value, message), !c.message.empty()) << c.why;
    if (c.message.empty()) continue;
    EXPECT_EQ(message.view(), c.message) << c.why;
  }
}

}  // namespace
}  // namespace vrox::tcp
