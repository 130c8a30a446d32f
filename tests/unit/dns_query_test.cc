#include <gtest/gtest.h>

#include <string>

#include "bytes.h"
#include "configuration.h"
#include "dns/question.h"
#include "dns/template.h"
#include "httpmod/module.h"
#include "httpmod/replica.h"

namespace vrox::dns {
namespace {

using std::string_literals::operator""s;

const std::string header = "\x12\x34\1\0\0\1\0\0\0\0\0\0"s;

std::string query(const std::string& name, const std::string& type = "\0\1"s) {
  return header + name + type + "\0\1"s;
}

std::string name_of(const std::string& message) {
  const auto question = read_question(bytes_of(message));
  return question ? std::string(question->name()) : "-";
}

std::string label(std::size_t length) {
  return static_cast<char>(length) + std::string(length, 'x');
}

TEST(DnsQuestion, NamesInDottedText) {
  const struct {
    const char* why;
    std::string message;
    std::string name;
  } cases[] = {
      {"labels", query("\3www\7Example\0"s), "www.Example"},
      {"what follows does not matter", query("\1a\0"s) + "\0\0\x29", "a"},
      {"nor do the counts", "\0\0\0\0\0\0\0\0\0\0\0\0"s + "\1a\0\0\1\0\1"s, "a"},
      {"127 characters", query(label(63) + label(63) + "\0"s),
       std::string(63, 'x') + "." + std::string(63, 'x')},
      {"128 characters", query(label(63) + label(62) + "\1x\0"s), "-"},
      {"a compressed name", query("\xc0\x0c"s), "-"},
      {"a pointer behind a label", query("\1a\xc0\x0c"s), "-"},
  };
  for (const auto& c : cases) EXPECT_EQ(name_of(c.message), c.name) << c.why;

  const std::string whole = query("\3www\7example\0"s);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(name_of(whole.substr(0, length)), "-") << "cut at " << length;
  }
}

class DnsTemplates : public ConfigurationTest {};

std::string text_of(const Buffer& buffer) { return std::string(buffer.view()); }

// A value that the TCP loop captures reaches the other loop's copy as a message,
// and the templates follow.
TEST_F(DnsTemplates, FollowWhatIsCaptured) {
  httpmod::HttpModModule& module = httpmod::new_module("m");
  ASSERT_TRUE(httpmod::apply_directive("save_line", "X-Token -> 1", module));
  ASSERT_TRUE(httpmod::apply_directive("strrep", "[D] -> [D]use_value(X-Token)", module));
  static constinit Loop loop;
  static constinit Loop other;
  ASSERT_TRUE(loop.open(8));
  ASSERT_TRUE(other.open(8));

  DnsRule rule;
  rule.lookup_template = "GET /[D] HTTP/1.1\r\n\r\n";
  rule.http_mod = httpmod::replica_for(&module, loop);
  EXPECT_EQ(rule.http_mod, httpmod::replica_for(&module, loop));
  EXPECT_NE(rule.http_mod, httpmod::replica_for(&module, other));
  EXPECT_EQ(httpmod::replica_for(nullptr, loop), nullptr);
  ASSERT_TRUE(build_templates(rule));

  const auto lookup = [&rule] {
    Buffer request;
    EXPECT_TRUE(refresh_templates(rule) && make_lookup_request(rule, "x", request));
    return text_of(request).substr(0, request.view().find(" HTTP"));
  };
  EXPECT_EQ(lookup(), "GET /xuse_value(X-Token)");
  std::time_t now = 100;
  for (const std::string value : {"one", "two", "two", ""}) {
    const std::string before = lookup();
    ASSERT_TRUE(httpmod::store_capture(module, *module.saved_values.head, value, ++now));
    EXPECT_EQ(lookup(), before) << "not before the message is delivered";
    loop.deliver_mail();
    EXPECT_EQ(lookup(), "GET /x" + value);
    EXPECT_EQ(rule.http_mod->saved_values.head->captured_at, now) << "also of a value it has";
  }
  other.deliver_mail();
}

}  // namespace
}  // namespace vrox::dns
