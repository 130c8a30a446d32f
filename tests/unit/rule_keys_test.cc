#include <regex.h>

#include "configuration.h"

namespace vrox::acl {
namespace {

using config::KeyResult;
using RuleKeys = ConfigurationTest;

Address bytes(std::initializer_list<int> list) {
  Address address{};
  std::size_t i = 0;
  for (const int byte : list) address[i++] = static_cast<std::uint8_t>(byte);
  return address;
}

TEST(RuleAddress, IsReadAsFarAsItMakesSense) {
  const struct {
    const char* text;
    Address expected;
  } cases[] = {
      {"10.1", bytes({10, 1})},
      {"1.2.3.4.5", bytes({1, 2, 3, 4})},
      {"::a:b", bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xa, 0, 0xb})},
      {"1:2:3:4:5:6:7:8:9", bytes({0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8})},
      {"12345::", bytes({0x12, 0x34})},
  };
  for (const auto& c : cases) EXPECT_EQ(parse_rule_address(c.text), c.expected) << c.text;
}

TEST_F(RuleKeys, ConditionValues) {
  Rule rule;
  const auto added = [&rule](const char* key, const char* value) -> const Condition& {
    EXPECT_EQ(apply_rule_key(key, value, rule), KeyResult::applied) << key;
    return *rule.conditions.tail;
  };
  const Condition& net = added("dst_ip", "10.1.2.3/8");
  EXPECT_EQ(net.prefix, 8);
  EXPECT_EQ(net.address, bytes({10})) << "bits behind the prefix are cleared";
  EXPECT_EQ(added("src_ip", "::1/129").prefix, 128);
  EXPECT_EQ(added("src_ip", "::1/-1").prefix, 0);

  EXPECT_EQ(added("method", "GET|HEAD| PUT").methods, 1U | 8192U | 8U);
  EXPECT_EQ(added("method", "get").methods, 16384U) << "no method: not HTTP";

  const Condition& header = added("hdr_key(User-Agent)", "^x$");
  EXPECT_EQ(header.header_name, "User-Agent");
  const auto matches = [](const Condition& c, const char* text) {
    return regexec(c.pattern, text, 0, nullptr, 0) == 0;
  };
  EXPECT_TRUE(matches(header, "a\nX")) << "lines are anchored, case does not count";
  EXPECT_FALSE(matches(header, "ax"));
  EXPECT_TRUE(matches(added("reg_string", "a\\tb"), "a\tb")) << "this key knows escapes";
  EXPECT_FALSE(matches(added("uri", "a\\tb"), "a\tb")) << "this one does not";
}

TEST_F(RuleKeys, ByteCountsHaveUnits) {
  const struct {
    const char* value;
    std::uint64_t bytes;
  } cases[] = {
      {"1", 1U << 20}, {"1M", 1U << 20}, {"3x", 3U << 20},
      {"2k", 2048},    {"1G", 1U << 30}, {"8g", std::uint64_t{8} << 30},
      {"none", 0},
  };
  for (const auto& c : cases) {
    Rule rule;
    ASSERT_EQ(apply_rule_key("maxData", c.value, rule), KeyResult::applied);
    EXPECT_EQ(rule.data_left->load(), c.bytes) << c.value;
    ASSERT_EQ(apply_rule_key("maxSpeed", c.value, rule), KeyResult::applied);
    EXPECT_EQ(rule.speed_limit->load(), c.bytes) << c.value;
    EXPECT_EQ(rule.speed_used->load(), 0U);
  }
}

TEST_F(RuleKeys, Treatment) {
  Rule rule;
  ASSERT_EQ(apply_rule_key("limit_client_ip", " 5\t6", rule), KeyResult::applied);
  ASSERT_EQ(apply_rule_key("limit_client_ip", "7", rule), KeyResult::applied);
  EXPECT_EQ(rule.max_clients, 7);
  EXPECT_EQ(rule.max_sessions_per_client, 6) << "a number that is not given stays as it was";
  ASSERT_EQ(apply_rule_key("timeout", "2", rule), KeyResult::applied);
  EXPECT_TRUE(sweeps(SweepBit::tcp));
  ASSERT_EQ(apply_rule_key("timeout", "-2", rule), KeyResult::applied);
  EXPECT_EQ(rule.timeout, 0);
  EXPECT_FALSE(sweeps(SweepBit::tcp));
  ASSERT_EQ(apply_rule_key("matchMode", "firstMatch", tcp::global), KeyResult::applied);
  EXPECT_TRUE(rule_lists.at_connect.empty()) << "tcp::Global belongs to no list";
}

}  // namespace
}  // namespace vrox::acl
