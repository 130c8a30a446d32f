#include <gtest/gtest.h>

#include <string>

#include "configuration.h"
#include "dns/template.h"
#include "httpmod/module.h"
#include "httpmod/replica.h"

namespace vrox::dns {
namespace {

using DnsTemplates = ConfigurationTest;

// A value that the TCP loop captures reaches the other loop's copy as a message,
// and the templates follow.
TEST_F(DnsTemplates, FollowWhatIsCaptured) {
  httpmod::HttpModModule& module = httpmod::new_module("m");
  ASSERT_TRUE(httpmod::apply_directive("save_line", "X-Token -> 1", module));
  ASSERT_TRUE(httpmod::apply_directive("save_line", "Y -> 1", module));
  ASSERT_TRUE(httpmod::apply_directive("strrep", "[D] -> [D]use_value(X-Token)", module));
  static constinit Loop loop;
  static constinit Loop other;
  ASSERT_TRUE(loop.open(8) && other.open(8));
  DnsRule rule;
  rule.lookup_template = "GET /[D] HTTP/1.1\r\n\r\n";
  rule.http_mod = httpmod::replica_for(&module, loop);
  EXPECT_EQ(rule.http_mod, httpmod::replica_for(&module, loop));
  EXPECT_NE(rule.http_mod, httpmod::replica_for(&module, other));
  ASSERT_TRUE(build_templates(rule));
  const auto expect_target = [&rule](const std::string& target) {
    Buffer request;
    EXPECT_TRUE(refresh_templates(rule) && make_lookup_request(rule, "x", request));
    EXPECT_EQ(request.view(), "GET " + target + " HTTP/1.1\r\n\r\n");
  };
  std::string now = "/xuse_value(X-Token)";
  std::time_t at = 100;
  for (const char* value : {"one", "two", "two", ""}) {
    ASSERT_TRUE(httpmod::store_capture(module, *module.saved_values.head->next, value, ++at));
    expect_target(now);  // until the message is delivered
    loop.deliver_mail();
    expect_target(now = std::string("/x") + value);
    EXPECT_EQ(rule.http_mod->saved_values.head->next->captured_at, at) << "also of a value it has";
  }
  const httpmod::HttpModModule* late = httpmod::copy_module(module);
  EXPECT_TRUE(late->saved_values.head->next->captured)
      << "a copy knows what was captured before it";
  EXPECT_EQ(late->saved_values.head->next->captured_at, at);
  other.deliver_mail();
}

}  // namespace
}  // namespace vrox::dns
