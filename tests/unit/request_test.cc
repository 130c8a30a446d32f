#include "httpmod/request.h"

#include <gtest/gtest.h>

#include <string>

namespace vrox::httpmod {
namespace {

TEST(HttpRequest, Methods) {
  const struct {
    const char* text;
    std::uint32_t code;
  } cases[] = {
      {"GET / HTTP/1.1", 1}, {"GETAWAY", 1},    {"POST", 2},         {"CONNECT", 4},
      {"PUT /", 8},          {"OPTIONS *", 16}, {"MOVE", 32},        {"COPY", 64},
      {"TRACE", 128},        {"DELETE /", 256}, {"LINK", 512},       {"UNLINK", 1024},
      {"PATCH", 2048},       {"WRAPPED", 4096}, {"HEAD /", 8192},    {"get / HTTP/1.1", not_http},
      {"GE", not_http},      {"", not_http},    {" GET /", not_http}};
  for (const auto& c : cases) EXPECT_EQ(method_code(c.text), c.code) << c.text;
}

TEST(HttpRequest, CompleteWithTheLastLineFeed) {
  const struct {
    const char* why;
    std::string text;
    bool complete;
  } cases[] = {
      {"a head", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", true},
      {"without its last line feed", "GET / HTTP/1.1\r\nHost: a\r\n\r", false},
      {"bare line feeds do not end a head", "GET / HTTP/1.1\n\n", false},
      {"a body", "POST / HTTP/1.1\r\n\r\nx", true},
      {"not HTTP", "\x16\x03\x01", true},
      {"a second head is waited for", "GET / HTTP/1.1\r\n\r\nGET /b HTTP/1.1\r\n", false},
      {"two heads and a body", "GET / HTTP/1.1\r\n\r\nPOST / HTTP/1.1\r\n\r\n{", true},
      {"three bytes behind the line feed, whatever they are", "GET /\n\rXGET /", false},
  };
  for (const auto& c : cases) {
    HeadScan scan;
    EXPECT_EQ(request_complete(c.text, scan), c.complete) << c.why;
  }
}

TEST(HttpRequest, TargetForRules) {
  const struct {
    const char* why;
    std::string text;
    const char* url;  // null: none
    const char* uri;
  } cases[] = {
      {"nine bytes are cut off unseen", "GET /abcdefghijkl\r\n\r\n", "/abc", "/abc"},
      {"a short target becomes empty", "GET /\r\n\r\n", "", "/"},
      {"blanks belong to the target", "GET /a b HTTP/1.1\r\n\r\n", "/a b", "/a b"},
      {"no blank in the line", "GET/aHTTP/1.1\r\nA: b\r\n\r\n", nullptr, nullptr},
      {"cut in the empty line", "GET /a HTTP/1.1\r\n\r", "/a", "/a"},
  };
  for (const auto& c : cases) {
    const auto target = parse_target(c.text);
    ASSERT_EQ(target.has_value(), c.url != nullptr) << c.why;
    if (!target) continue;
    EXPECT_EQ(target->url, c.url) << c.why;
    EXPECT_EQ(target->uri, c.uri) << c.why;
  }
}

TEST(HttpRequest, Host) {
  const struct {
    const char* why;
    const char* head;
    const char* host;  // null: none
  } cases[] = {
      {"any case, blanks and tabs", "GET / HTTP/1.1\r\nhOST: \t a.b:8 \r\n\r\n", "a.b:8 "},
      {"the first of two", "GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", "a"},
      {"a blank before the colon", "GET / HTTP/1.1\r\nHost : a\r\n\r\n", nullptr},
      {"never the request line", "Host: a / HTTP/1.1\r\n\r\n", nullptr},
      {"a bare line feed does not end it", "GET / HTTP/1.1\r\nHost: a\nB: c\r\n", "a\nB: c"},
      {"CONNECT without a second blank", "CONNECT a:443\r\nHost:b\r\n\r\n", nullptr},
      {"three letters make a CONNECT", "CONxxxx a:443 HTTP/1.1\r\n\r\n", "a:443"},
  };
  for (const auto& c : cases) {
    const auto host = find_request_host(c.head);
    ASSERT_EQ(host.has_value(), c.host != nullptr) << c.why;
    EXPECT_EQ(host.value_or(""), c.host == nullptr ? "" : c.host) << c.why;
  }
}

}  // namespace
}  // namespace vrox::httpmod
