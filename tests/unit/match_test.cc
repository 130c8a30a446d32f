#include "acl/match.h"

#include <string>
#include <string_view>
#include <tuple>

#include "bytes.h"
#include "configuration.h"
#include "httpmod/request.h"

namespace vrox::acl {
namespace {

using namespace std::string_literals;

constexpr std::string_view get = "GET /a?b HTTP/1.1\r\nHost: h.test\r\nX-K:\t v\r\n\r\n";
constexpr std::string_view raw = "\x01 no HTTP";

Subject subject(std::string_view request = {}, const char* destination = "10.0.0.1",
                std::uint16_t port = 443) {
  return {.client = parse_address("192.0.2.9", 1)->uniform(),
          .destination = parse_address(destination, port)->uniform(),
          .port = port,
          .has_upstream = false,
          .method = httpmod::method_code(request),
          .request = request};
}

class Matching : public ConfigurationTest {
 protected:
  // Rules r0, r1, ... of the given lines, in this order.
  static void rules(std::initializer_list<const char*> bodies) {
    reset();
    std::string text;
    for (const char* body : bodies) {
      text += "tcpAcl::r" + std::to_string(count_++) + " {\n" + body + "\n}\n";
    }
    count_ = 0;
    ASSERT_TRUE(load(text)) << text;
  }
  static std::string name_of(const Rule* rule) {
    if (rule == nullptr) return "none";
    return rule == rule_lists.fallback ? "default" : std::string(rule->name);
  }
  static std::string on_request(const Subject& about, int limit = no_limit) {
    return name_of(match_on_request(about, rule_lists.on_request.head, limit));
  }
  static std::string at_connect(const Subject& about, int limit = no_limit) {
    return name_of(match_at_connect(about, rule_lists.at_connect.head, limit));
  }

 private:
  inline static int count_ = 0;
};

TEST_F(Matching, RequestKinds) {
  const std::string zero = "a\0b"s;
  const struct {
    const char* condition;
    std::string request;
    bool holds, negated_holds;
  } cases[] = {
      {"reg_string{}= b", zero, true, false},  // bytes behind a zero byte count
      {"uri{}= ^/$", "GET http://h HTTP/1.1\r\n\r\n", true, false},
      {"uri{}= .", std::string(raw), false, false},  // undecidable
      {"url{}= never", "GET", true, false},          // no head: broken requests are caught
      {"url{}= never", "GET\r\nX: no blank in the first line\r\n\r\n", true, false},
      {"url{}= ^$", "GET /\r\n\r\n", true, false},  // shorter than a version
      {"hdr_key(X-K){}= ^v$", "GET / HTTP/1.1\r\nX-K: w\r\nX-K: v\r\n\r\n", true, false},
      {"hdr_key(X-K){}= ^v$", "GET / HTTP/1.1\r\nX-K:\r\n \t v\r\n\r\n", true,
       false},  // blanks, line ends too
      {"hdr_key(X-K){}= v", "GET / HTTP/1.1\r\nX-K : v\r\nX-KK: v\r\nY: X-K: v\r\n\r\n", false,
       true},
      {"hdr_key(GET /){}= v", "GET /: v HTTP/1.1\r\n\r\n", false,
       true},                                                 // the request line is no header
      {"hdr_key(X-K){}= v", std::string(raw), false, false},  // undecidable
      {"hdr_key(Host){}= v", std::string(raw), false, true},  // but this may be TLS
  };
  for (const auto& c : cases) {
    for (const bool negated : {false, true}) {
      std::string line = c.condition;
      line.replace(line.find("{}"), 2, negated ? "! " : " ");
      rules({line.c_str()});
      EXPECT_EQ(on_request(subject(c.request)) == "r0", negated ? c.negated_holds : c.holds)
          << line << " on " << c.request;
    }
  }
}

TEST_F(Matching, Addresses) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"dst_ip = 2001:db8::/65", "2001:db8::8000:0:0:1", false},
      {"dst_ip = 2001:db8::fffe/127", "2001:db8::ffff", true},
      {"dst_ip = 10.0.0.0/200", "10.0.0.1", false},  // clamped to 128
      {"dst_ip = a00::", "10.0.0.0", true},          // one form for both families
      {"dst_port = 444:442", "10.0.0.1", false},
  };
  for (const auto& [condition, destination, holds] : cases) {
    const std::string first = std::string("matchMode = firstMatch\n") + condition;
    rules({condition, first.c_str()});
    EXPECT_EQ(on_request(subject(raw, destination)), holds ? "r0" : "default") << condition;
    EXPECT_EQ(at_connect(subject({}, destination)), holds ? "r1" : "none") << condition;
  }
}

TEST_F(Matching, AtConnectionTimeRequestKindsTakeTheLastResult) {
  const struct {
    const char* why;
    std::initializer_list<const char*> bodies;
    const char* name;
  } cases[] = {
      {"held by an earlier rule",
       {"matchMode = firstMatch\ndst_port! = 443", "matchMode = firstMatch\nuri = x"},
       "r1"},
      {"not held by an earlier rule",
       {"matchMode = firstMatch\ncontinue_match:dst_port = 443\nsrc_ip = 1.1.1.1",
        "matchMode = firstMatch\nuri = x"},
       "none"},
      {"an included rule is a call of its own",
       {"dst_port = 443\nmatchMode = no_auto_match",
        "matchMode = firstMatch\ncontinue_match:dst_port = 443\ninclude_module = r2",
        "matchMode = firstMatch\nuri = x"},
       "none"},
      {"and its result is the last one then",
       {"matchMode = firstMatch\ncontinue_match:include_module = r1\nuri = x",
        "matchMode = firstMatch\ndst_port = 443"},
       "r0"},
  };
  for (const auto& c : cases) {
    rules(c.bodies);
    EXPECT_EQ(at_connect(subject()), c.name) << c.why;
  }
}

TEST_F(Matching, ListsAndLimits) {
  rules({"matchMode = no_auto_match\ndst_port = 443", "dst_port = 1:10", "dst_port = 443",
         "dst_port = 443"});
  EXPECT_EQ(on_request(subject(raw)), "r2") << "file order, without the one that waits to be named";
  EXPECT_EQ(on_request(subject(raw), 2), "default") << "only two are tried";
  EXPECT_EQ(at_connect(subject()), "none") << "the lists are separate";
  Subject connected = subject(raw);
  connected.has_upstream = true;
  EXPECT_EQ(on_request(connected), "r0");
  rules({});
  EXPECT_EQ(on_request(subject(get)), "default");
  rules({""});
  EXPECT_EQ(on_request(subject(get)), "default") << "a rule without conditions does not match";
  rules({"include_module! = r0"});
  EXPECT_EQ(on_request(subject(raw)), "r0") << "it does not match itself, so the negation holds";
}

// ---- TLS server names --------------------------------------------------------------

// A ClientHello of OpenSSL: up to its extensions, the server name, and the others.
const std::string hello_head = from_hex(
    "160301006e0100006a0303dbb7685e7e3343d55f6f55e7c5d06ea1d05cbb179e95320afec54c9c3b249ff1000004"
    "c02b00ff0100003d");
const std::string hello_name = "\x00\x00\x00\x15\x00\x13\x00\x00\x10www.example.test"s;
const std::string hello_rest =
    from_hex("000b000403000102000a000400020017002300000016000000170000000d000400020403");
const std::string empty_ticket = from_hex("00230000");
const std::string reserved =
    from_hex("1a1a0000");  // RFC 8701: no extension begins with a 0 byte here

std::string without(std::string text, const std::string& part) {
  return text.erase(text.find(part), part.size());
}

TEST(TlsName, InRealHellos) {
  const struct {
    const char* why;
    std::string hello;
  } cases[] = {
      {"other extensions behind it", hello_head + hello_name + hello_rest},
      {"followed by one whose type has no 0 byte",
       hello_head + hello_name + reserved + without(hello_rest, empty_ticket)},
      {"more than the record", hello_head + hello_rest + hello_name + "\x14\x03\x03\x00\x01\x01"s},
      {"a cut record, as far as the name",
       (hello_head + hello_name + hello_rest).substr(0, 53 + 26)},
  };
  for (const auto& c : cases) EXPECT_EQ(tls_server_name(c.hello), "www.example.test") << c.why;
}

TEST(TlsName, ByWhatSurroundsIt) {
  const std::string begin = "\x16\x03\x01"s;
  const struct {
    const char* why;
    std::string record;
    const char* name;
  } cases[] = {
      {"the record ends with the name", begin + "\x01\x00\x03"s + "a.b"s, ""},
      {"a name without a dot is not looked for", begin + "\x01\x00\x02"s + "ab\0"s, ""},
      {"the nearest start before the dot", begin + "\x00\x07q\x00\x05"s + "xx.yy\0"s, "xx.yy"},
      {"the first dot with a name decides", begin + "\x00\x03"s + "a.b\0"s + "\x03"s + "c.d\0"s,
       "a.b"},
      {"not in the first bytes", "\x00\x03"s + "a.b\0"s, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tls_server_name(c.record), c.name) << c.why;
  }
}

TEST(TlsName, AHelloIsIncompleteUntilItsLastByte) {
  const std::string hello = hello_head + hello_name + hello_rest;
  for (std::size_t length = 1; length < hello.size(); ++length) {
    EXPECT_TRUE(is_incomplete_client_hello(hello.substr(0, length))) << length;
  }
  EXPECT_FALSE(is_incomplete_client_hello(hello));
  EXPECT_FALSE(is_incomplete_client_hello(hello + "more"));
  EXPECT_FALSE(is_incomplete_client_hello(""));
  EXPECT_FALSE(is_incomplete_client_hello("\x17\x03\x03\x00\x40"s)) << "no handshake";
  EXPECT_FALSE(is_incomplete_client_hello("\x16\x02")) << "no version of TLS";
  EXPECT_FALSE(is_incomplete_client_hello("\x16\x03\x01\x40\x00\x02"s))
      << "another handshake message";
}

TEST_F(Matching, ServerNamesDecideHostConditions) {
  const std::string hello = hello_head + hello_name + hello_rest;
  std::string other = hello;
  other[2] = 3;  // a record version that only later messages have
  rules({"hdr_key(Host) = example.test.", "hdr_key(Host)! = other"});
  EXPECT_EQ(on_request(subject(hello)), "r1") << "the pattern sees the name alone";
  EXPECT_EQ(on_request(subject(other)), "r1") << "other data do not hold, which is decided";
  rules({"hdr_key(X) = example", "hdr_key(X)! = example"});
  EXPECT_EQ(on_request(subject(hello)), "default") << "other headers cannot be decided";
}

}  // namespace
}  // namespace vrox::acl
