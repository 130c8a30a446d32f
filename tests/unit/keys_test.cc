// What keys of rules and modules make of their values.
#include <regex.h>

#include "configuration.h"

namespace vrox {
namespace {

using Keys = ConfigurationTest;

Address bytes(std::initializer_list<int> list) {
  Address address{};
  std::size_t i = 0;
  for (const int byte : list) address[i++] = static_cast<std::uint8_t>(byte);
  return address;
}

TEST_F(Keys, AddressesAreReadAsFarAsTheyMakeSense) {
  const struct {
    const char* text;
    Address expected;
    int prefix = 128;
  } cases[] = {
      {"10.1", bytes({10, 1})},
      {"1.2.3.4.5", bytes({1, 2, 3, 4})},
      {"::a:b", bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xa, 0, 0xb})},
      {"1:2:3:4:5:6:7:8:9", bytes({0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8})},
      {"12345::", bytes({0x12, 0x34})},
      {"10.1.2.3/8", bytes({10}), 8},  // bits behind the prefix are cleared
      {"::/129", {}},
      {"::1/-1", {}, 0},
  };
  for (const auto& c : cases) {
    acl::Rule rule;
    ASSERT_EQ(acl::apply_rule_key("dst_ip", c.text, rule), config::KeyResult::applied) << c.text;
    EXPECT_EQ(rule.conditions.tail->address, c.expected) << c.text;
    EXPECT_EQ(rule.conditions.tail->prefix, c.prefix) << c.text;
  }
}

TEST_F(Keys, ConditionsOfRequests) {
  acl::Rule rule;
  const auto added = [&rule](const char* key, const char* value) -> const acl::Condition& {
    EXPECT_EQ(acl::apply_rule_key(key, value, rule), config::KeyResult::applied) << key;
    return *rule.conditions.tail;
  };
  EXPECT_EQ(added("method", "GET|HEAD| PUT").methods, 1U | 8192U | 8U);
  EXPECT_EQ(added("method", "get").methods, 16384U) << "no method: not HTTP";
  EXPECT_EQ(added("hdr_key(User-Agent)", "x").header_name, "User-Agent");
  const struct {
    const char* why;
    const char* key;
    const char* pattern;
    const char* text;
    bool matches;
  } cases[] = {
      {"lines are anchored, case does not count", "hdr_key(A)", "^x$", "a\nX", true},
      {"at both ends", "hdr_key(A)", "^x$", "ax", false},
      {"this key knows escapes", "reg_string", "a\\tb", "a\tb", true},
      {"this one does not", "uri", "a\\tb", "a\tb", false},
  };
  for (const auto& c : cases) {
    const regex_t* pattern = added(c.key, c.pattern).pattern;
    EXPECT_EQ(regexec(pattern, c.text, 0, nullptr, 0) == 0, c.matches) << c.why;
  }
}

TEST_F(Keys, ByteCountsHaveUnits) {
  const struct {
    const char* value;
    std::uint64_t bytes;
  } cases[] = {{"1", 1U << 20}, {"1M", 1U << 20}, {"3x", 3U << 20},
               {"2k", 2048},    {"1G", 1U << 30}, {"8g", std::uint64_t{8} << 30},
               {"none", 0}};
  for (const auto& c : cases) {
    acl::Rule rule;
    ASSERT_EQ(acl::apply_rule_key("maxData", c.value, rule), config::KeyResult::applied);
    EXPECT_EQ(rule.data_left->load(), c.bytes) << c.value;
  }
}

TEST_F(Keys, Treatment) {
  acl::Rule rule;
  const auto apply = [&rule](const char* key, const char* value) {
    ASSERT_EQ(acl::apply_rule_key(key, value, rule), config::KeyResult::applied) << key;
  };
  apply("limit_client_ip", " 5\t6");
  apply("limit_client_ip", "7");
  EXPECT_EQ(rule.max_clients, 7);
  EXPECT_EQ(rule.max_sessions_per_client, 6) << "a number that is not given stays as it was";
  apply("timeout", "2");
  EXPECT_TRUE(sweeps(SweepBit::tcp));
  apply("timeout", "-2");
  EXPECT_EQ(rule.timeout, 0);
  EXPECT_FALSE(sweeps(SweepBit::tcp));
}

TEST_F(Keys, Destinations) {
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
    List<tcp::Destination> list;
    std::string seen;
    EXPECT_EQ(tcp::add_destinations(c.key, c.value, list), *c.expected != '\0') << c.why;
    for (const tcp::Destination& d : list) {
      seen += d.original_dst ? "original" : d.deny_network ? "deny" : "";
      if (!seen.empty()) continue;
      EXPECT_EQ(d.address.family(), AF_INET6) << c.why;
      seen = (d.address.is_mapped_v4() ? "m" : "") + std::to_string(d.address.port());
    }
    EXPECT_EQ(seen, c.expected) << c.why;
  }
}

TEST(CredentialsOfModules, BecomeAnRfc1929Message) {
  const std::string longest(255, 'x');
  const struct {
    const char* why;
    std::string value;
    std::string message;  // empty: refused
  } cases[] = {
      {"the first blank separates", "u p w", "\1\1u\3p w"},
      {"empty parts are parts", " ", std::string("\1\0\0", 3)},
      {"the longest that fit", longest + " " + longest, "\1\xff" + longest + "\xff" + longest},
      {"a user too long for its length byte", longest + "x p", ""},
      {"a password too long", "u x" + longest, ""},
  };
  for (const auto& c : cases) {
    Buffer message;
    EXPECT_EQ(tcp::parse_user_pass(c.value, message), !c.message.empty()) << c.why;
    EXPECT_EQ(message.view(), c.message) << c.why;
  }
}

}  // namespace
}  // namespace vrox
