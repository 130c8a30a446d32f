#include "acl/match.h"

#include <string>
#include <string_view>

#include "bytes.h"
#include "configuration.h"
#include "httpmod/request.h"

namespace vrox::acl {
namespace {

using namespace std::string_literals;

const std::string get = "GET / HTTP/1.1\r\n";
const std::string raw = "\x01 no HTTP";

// A ClientHello of OpenSSL: up to its extensions, the server name, and the others.
const std::string hello_head = from_hex(
    "160301006e0100006a0303dbb7685e7e3343d55f6f55e7c5d06ea1d05cbb179e95320afec54c9c3b249ff1000004"
    "c02b00ff0100003d");
const std::string hello_name = "\x00\x00\x00\x15\x00\x13\x00\x00\x10www.example.test"s;
const std::string hello_rest =
    from_hex("000b000403000102000a000400020017002300000016000000170000000d000400020403");
const std::string hello = hello_head + hello_name + hello_rest;

Subject subject(std::string_view request = {}, const char* destination = "10.0.0.1") {
  return {.client = parse_address("192.0.2.9", 1)->uniform(),
          .destination = parse_address(destination, 443)->uniform(),
          .port = 443,
          .has_upstream = false,
          .method = httpmod::method_code(request),
          .request = request};
}

class Matching : public ConfigurationTest {
 protected:
  // Rules r0, r1, ... of the given lines, in this order.
  static void rules(const std::vector<std::string>& bodies) {
    reset();
    std::string text;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      text += "tcpAcl::r" + std::to_string(i) + " {\n" + bodies[i] + "\n}\n";
    }
    ASSERT_TRUE(load(text)) << text;
  }
  static std::string name_of(const Rule* rule) {
    if (rule == nullptr) return "none";
    return rule == rule_lists.fallback ? "default" : std::string(rule->name);
  }
  static std::string on_request(const Subject& about, int limit = no_limit) {
    return name_of(match_on_request(about, rule_lists.on_request.head, limit));
  }
  static std::string at_connect(const Subject& about) {
    return name_of(match_at_connect(about, rule_lists.at_connect.head));
  }
};

TEST_F(Matching, RequestKinds) {
  enum Outcome : std::uint8_t { holds, fails, undecided };  // neither it nor its negation holds
  const struct {
    const char* why;
    std::string key, pattern, request;
    Outcome outcome;
  } cases[] = {
      {"bytes behind a zero byte count", "reg_string", "b", "a\0b"s, holds},
      {"and escapes in its pattern", "reg_string", "a\\tb", "a\tb", holds},
      {"which others have not", "hdr_key(X-K)", "a\\tb", get + "X-K: a\tb\r\n\r\n", fails},
      {"lines are anchored, case does not count", "reg_string", "^x$", "a\nX", holds},
      {"at both ends", "reg_string", "^x$", "ax", fails},
      {"the last of several", "method", "GET|HEAD| PUT", "PUT / HTTP/1.1\r\n\r\n", holds},
      {"what is no method means no HTTP", "method", "get", raw, holds},
      {"a proxy's request without a path", "uri", "^/$", "GET http://h HTTP/1.1\r\n\r\n", holds},
      {"a broken request is caught", "url", "never", "GET\r\nX: no blank above\r\n\r\n", holds},
      {"the second of two", "hdr_key(X-K)", "^v$", get + "X-K: w\r\nX-K: v\r\n\r\n", holds},
      {"blanks and line ends", "hdr_key(X-K)", "^v$", get + "X-K:\r\n \t v\r\n\r\n", holds},
      {"other names", "hdr_key(X-K)", "v", get + "X-K : v\r\nX-KK: v\r\nY: X-K: v\r\n\r\n", fails},
      {"never the request line", "hdr_key(GET /)", "v", "GET /: v HTTP/1.1\r\n\r\n", fails},
      {"no headers", "hdr_key(X-K)", "v", raw, undecided},
      {"nor in TLS, but for the host", "hdr_key(X)", "example", hello, undecided},
      {"which is the name alone", "hdr_key(Host)", "example.test.", hello, fails},
      {"a record version of later messages", "hdr_key(Host)", "example",
       "\x16\x03\x03" + hello.substr(3), fails},
  };
  for (const auto& c : cases) {
    for (const bool negated : {false, true}) {
      rules({c.key + (negated ? "! = " : " = ") + c.pattern});
      EXPECT_EQ(on_request(subject(c.request)) == "r0", c.outcome == (negated ? fails : holds))
          << c.why << (negated ? ", negated" : "");
    }
  }
}

TEST_F(Matching, Addresses) {
  const struct {
    const char* condition;
    const char* destination;
    bool holds;
  } cases[] = {
      {"dst_ip = 2001:db8::/65", "2001:db8::8000:0:0:1", false},
      {"dst_ip = 2001:db8::fffe/127", "2001:db8::ffff", true},
      {"dst_ip = 10.0.0.0/200", "10.0.0.1", false},  // clamped to 128
      {"dst_ip = a00::", "10.0.0.0", true},          // one form for both families
      {"dst_port = 444:442", "10.0.0.1", false},
  };
  for (const auto& c : cases) {
    rules({c.condition});
    EXPECT_EQ(on_request(subject(raw, c.destination)) == "r0", c.holds) << c.condition;
  }
}

TEST_F(Matching, AtConnectionTimeRequestKindsTakeTheLastResult) {
  const std::string first = "matchMode = firstMatch\n";
  const struct {
    const char* why;
    std::vector<std::string> bodies;
    const char* name;
  } cases[] = {
      {"held by an earlier rule", {first + "dst_port! = 443", first + "uri = x"}, "r1"},
      {"not held by an earlier rule",
       {first + "continue_match:dst_port = 443\nsrc_ip = 1.1.1.1", first + "uri = x"},
       "none"},
      {"an included rule is a call of its own",
       {"dst_port = 443\nmatchMode = no_auto_match",
        first + "continue_match:dst_port = 443\ninclude_module = r2", first + "uri = x"},
       "none"},
      {"and its result is the last one then",
       {first + "continue_match:include_module = r1\nuri = x", first + "dst_port = 443"},
       "r0"},
  };
  for (const auto& c : cases) {
    rules(c.bodies);
    EXPECT_EQ(at_connect(subject()), c.name) << c.why;
  }
}

TEST_F(Matching, ListsAndLimits) {
  rules({"matchMode = no_auto_match\ndst_port = 443", "dst_port = 1:10", "dst_port = 443"});
  EXPECT_EQ(on_request(subject(raw)), "r2") << "file order, without the one that waits to be named";
  EXPECT_EQ(on_request(subject(raw), 2), "default") << "only two are tried";
  EXPECT_EQ(at_connect(subject()), "none") << "the lists are separate";
  Subject connected = subject(raw);
  connected.has_upstream = true;
  EXPECT_EQ(on_request(connected), "r0");
  rules({"include_module! = r0"});
  EXPECT_EQ(on_request(subject(raw)), "r0") << "it does not match itself, so the negation holds";
}

TEST(TlsName, WhateverSurroundsIt) {
  const std::string begin = "\x16\x03\x01"s;
  const std::string last = "www.example.test";
  const std::string reserved = from_hex("1a1a0000");  // RFC 8701: it begins with no 0 byte
  const struct {
    const char* why;
    std::string record;
    std::string name;
  } cases[] = {
      {"other extensions behind it", hello, last},
      {"one whose type has no 0 byte",
       hello_head + hello_name + reserved + hello_rest.substr(0, 16) + hello_rest.substr(20), last},
      {"more than the record", hello_head + hello_rest + hello_name + "\x14\x03\x03\0\1\1"s, last},
      {"a cut record, as far as the name", hello.substr(0, 53 + 26), last},
      {"the record ends with the name", begin + "\1\0\3"s + "a.b", ""},
      {"a name without a dot is not looked for", begin + "\1\0\2"s + "ab\0"s, ""},
      {"the nearest start before the dot", begin + "\0\7q\0\5"s + "xx.yy\0"s, "xx.yy"},
      {"the first dot with a name decides", begin + "\0\3"s + "a.b\0\3"s + "c.d\0"s, "a.b"},
      {"not in the first bytes", "\0\3"s + "a.b\0"s, ""},
  };
  for (const auto& c : cases) EXPECT_EQ(tls_server_name(c.record), c.name) << c.why;
}

TEST(TlsName, AHelloIsIncompleteUntilItsLastByte) {
  EXPECT_TRUE(is_incomplete_client_hello(hello.substr(0, 1)));
  EXPECT_TRUE(is_incomplete_client_hello(hello.substr(0, hello.size() - 1)));
  const std::string others[] = {hello,
                                hello + "more",
                                "",
                                "\x17\x03\x03\x00\x40"s,
                                "\x16\x02" /* no version of TLS */,
                                "\x16\x03\x01\x40\x00\x02"s /* another message */};
  for (const std::string& other : others) EXPECT_FALSE(is_incomplete_client_hello(other));
}

}  // namespace
}  // namespace vrox::acl
