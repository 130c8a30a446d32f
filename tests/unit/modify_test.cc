#include "httpmod/modify.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "httpmod/request.h"

namespace vrox::httpmod {
namespace {

using Lines = std::vector<std::pair<const char*, const char*>>;

// A module outside the list, freed at the end of the test.
class Rewriter {
 public:
  explicit Rewriter(const Lines& lines) {
    for (const auto& line : lines) {
      EXPECT_TRUE(apply_directive(line.first, line.second, module)) << line.first;
    }
  }
  ~Rewriter() {
    for (auto* at = module.directives.head; at != nullptr;) delete std::exchange(at, at->next);
    for (auto* at = module.saved_values.head; at != nullptr;) delete std::exchange(at, at->next);
  }

  std::string operator()(std::string_view request) {
    Buffer buffer;
    EXPECT_TRUE(buffer.assign(request));
    const SocketAddress destination = *parse_address("10.0.0.1", 80);
    const RequestView view{buffer, method_code(request), destination, 7, 8080};
    const bool done = modify_request(view, module, key);
    EXPECT_TRUE(done || buffer.view() == request) << "a failure leaves the request alone";
    return done ? std::string(buffer.view()) : "failed";
  }

  HttpModModule module;
  TunnelKey key;
};

TEST(Modify, Directives) {
  const struct {
    const char* why;
    const char* key;
    const char* value;
    std::string request;
    std::string result;
  } cases[] = {
      {"inner quotes", "strrep", "a \" -> \" b", "GET /a HTTP/1.1\r\n\r\n",
       "GET / bHTTP/1.1\r\n\r\n"},
      {"one quote only", "strrep", "a\"\" -> \"\"b", "GET /a\" HTTP/1.1\r\n\r\n",
       "GET /\"b HTTP/1.1\r\n\r\n"},
      {"tabs are no blanks here", "strrep", "a\t->\tb", "GET /a\tHTTP/1.1 x\r\n\r\n",
       "GET /\tbHTTP/1.1 x\r\n\r\n"},
      {"the first arrow", "strrep", "/a->/b->c", "GET /a HTTP/1.1\r\n\r\n",
       "GET /b->c HTTP/1.1\r\n\r\n"},
      {"capitals mean regrep", "STRREP", "(A)->\\1b", "GET /a HTTP/1.1\r\n\r\n",
       "GET /ab HTTP/1.1\r\n\r\n"},
      {"the first letter decides", "sTRREP", "(a)->b", "GET /(a) HTTP/1.1\r\n\r\n",
       "GET /b HTTP/1.1\r\n\r\n"},
      {"or the second before", "Save_line", "a->5", "GET / HTTP/1.1\r\na: b\r\n\r\n",
       "GET / HTTP/1.1\r\na: b\r\n\r\n"},
      {"a host's port that is no number is 0", "set_first", "[H]|[H_P]",
       "GET / HTTP/1.1\r\nHost: a:b\r\n\r\n", "a:b|a:b:80Host: a:b\r\n\r\n"},
      {"an empty host is one", "set_first", "[H]|[H_P]", "GET / HTTP/1.1\r\nHost: \r\n\r\n",
       "|Host: \r\n\r\n"},
      {"a head without line feed", "set_first", "[U]", "GET /a HTTP/1.1\r", "/a"},
      {"no line end behind the blank", "set_first", "x", "GET\r\n a", "failed"},
      {"never the request line", "del_line", "get / http/1.1", "GET / HTTP/1.1: x\r\n\r\n",
       "GET / HTTP/1.1: x\r\n\r\n"},
      {"no line of a longer name", "del_line", "host",
       "GET / HTTP/1.1\r\nHost: a\r\nHOST:b\r\nHosts: c\r\nX-Host: d\r\nhost:\r\n\r\n",
       "GET / HTTP/1.1\r\nHosts: c\r\nX-Host: d\r\n\r\n"},
      {"a last line without line feed", "del_line", "A", "GET /b HTTP/1.1\r\nA: b",
       "GET /b HTTP/1.1\r\n"},
      {"a pattern that expands to nothing", "strrep", "[H] -> x",
       "GET /x HTTP/1.1\r\nHost: \r\n\r\n", "GET /x HTTP/1.1\r\nHost: \r\n\r\n"},
      {"no empty line", "strrep", "x -> y", "GET /x HTTP/1.1\n\rxxx", "GET /y HTTP/1.1\n\ryxx"},
      {"each search is at a line start", "regrep", "^(G|E|T) -> ", "GETGET / HTTP/1.1\r\n\r\n",
       " / HTTP/1.1\r\n\r\n"},
      {"markers of groups that are not there stay", "regrep", "/(a) -> /\\1\\2\\0",
       "GET /a HTTP/1.1\r\n\r\n", "GET /a\\2\\0 HTTP/1.1\r\n\r\n"},
      {"an empty match steps over a byte", "regrep", "z* -> -", "GE /z HTT\r\n\r\n",
       "-G-E- -/-- -H-T-T-\r-\n-\r-\n-"},
      {"an empty pattern matches nothing", "regrep", "[H] -> x", "GET / HTTP/1.1\r\nHost:\r\n\r\n",
       "GET / HTTP/1.1\r\nHost:\r\n\r\n"},
      {"a request may not bring groups into a pattern", "regrep", "[U] -> x",
       "GET (T) HTTP/1.1\r\n\r\n", "GET (T) HTTP/1.1\r\n\r\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Rewriter(Lines{{c.key, c.value}})(c.request), c.result) << c.why;
  }
  Rewriter none(Lines{});
  EXPECT_FALSE(apply_directive("strrep", "a-b", none.module)) << "no arrow";
  EXPECT_FALSE(apply_directive("modify_all_request", "off", none.module)) << "not switched on";
}

TEST(Modify, CompiledPatternsFollowTheRequest) {
  Rewriter rewriter(Lines{{"regrep", ": [U] -> !"}});
  const auto with_target = [&](const std::string& target) {
    return rewriter("GET " + target + " HTTP/1.1\r\nA: /a\r\nB: /b\r\n\r\n")
        .substr(13 + target.size());
  };
  EXPECT_EQ(with_target("/a"), "\r\nA!\r\nB: /b\r\n\r\n");
  EXPECT_EQ(with_target("/b"), "\r\nA: /a\r\nB!\r\n\r\n");
  EXPECT_EQ(with_target("[/"), "\r\nA: /a\r\nB: /b\r\n\r\n") << "no valid pattern";
  EXPECT_EQ(with_target("/b"), "\r\nA: /a\r\nB!\r\n\r\n");
}

TEST(Modify, SavedValues) {
  Rewriter rewriter(Lines{{"set_first", "use_value(A)|[U]\r\n"},
                          {"save_line", "A -> 60"},
                          {"strrep", "old -> use_value(a)use_value(A)"}});
  SavedValue& saved = *rewriter.module.saved_values.head;
  EXPECT_EQ(saved.interval_s, 3600);
  const auto with = [&](const std::string& line) {
    const std::string result = rewriter("GET /old HTTP/1.1\r\n" + line);
    return result.substr(0, result.find('\r'));
  };
  EXPECT_EQ(with("A: z\r\n\r\n"), "use_value(A)|/use_value(a)z")
      << "the case of the directive counts, and what stands behind it in the file";
  EXPECT_EQ(with("A: early\r\n\r\n"), "z|/use_value(a)z");
  saved.captured_at -= 3600;
  EXPECT_EQ(with("B: c\r\n\r\n"), "z|/use_value(a)z");
  EXPECT_EQ(with("A: z\r\n\r\n"), "z|/use_value(a)z");
  EXPECT_EQ(rewriter.module.revision, 1U) << "the same value again is no change";
  saved.interval_s = 0;
  EXPECT_EQ(with("A: y\n\r\n"), "z|/use_value(a)")
      << "one byte before the line feed is taken for the carriage return";
  EXPECT_EQ(with("A:\n\r\n"), "|/use_value(a)") << "an empty value is one";
  EXPECT_EQ(with("A: end"), "|/use_value(a)end");
}

TEST(Modify, RequestsBehindOneAnother) {
  Rewriter all(Lines{{"set_first", "[H][U]|[H_P]\r\n"}, {"modify_all_request", "on"}});
  const std::string first = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";
  EXPECT_EQ(all(first + "GET"), "failed") << "a body that begins like a request is one";
  all.key = {0x5a, 0x93};
  EXPECT_EQ(all(first + "CONNECT ab HTTP/1.1\r\n\r\nbody"),
            "a/x|a\r\nHost: a\r\n\r\nsbUH/|ab\r\n\r\nbody")
      << "each with its own method: of CONNECT [H] is enciphered";
}

// A megabyte of placeholders that multiply must neither fill the memory nor,
// as a pattern, the stack.
TEST(Modify, HostileRequestsStayBounded) {
  std::string request = "GET /";
  for (int i = 0; i < 100000; ++i) request += "[H]";
  request += " HTTP/1.1\r\nHost: " + std::string(100000, 'h') + "\r\n\r\n";
  EXPECT_EQ(Rewriter(Lines{{"set_first", "[url]"}})(request), "failed");
  EXPECT_EQ(Rewriter(Lines{{"strrep", "/ -> [url]"}})(request), "failed");

  std::string marked = "GET /";
  for (int i = 0; i < 50000; ++i) marked += "\\2";
  marked += " " + std::string(50000, 'b') + " HTTP/1.1\r\n\r\n";
  EXPECT_EQ(Rewriter(Lines{{"regrep", "/([^ ]*) (b*) -> \\1"}})(marked), "failed");

  for (const char* bit : {"(", "|", "a?", "a{9}", "\\"}) {
    std::string deep = "GET /";
    for (int i = 0; i < 100000; ++i) deep += bit;
    deep += " HTTP/1.1\r\n\r\n";
    EXPECT_EQ(Rewriter(Lines{{"regrep", "[url] -> x"}})(deep), deep) << bit;
  }
  // Each further "+" would double what the C library compiles; two are as common as "c++".
  const std::string doubling = "GET /c" + std::string(40, '+') + " HTTP/1.1\r\n\r\n";
  EXPECT_EQ(Rewriter(Lines{{"regrep", "[url] -> x"}})(doubling), doubling);
  EXPECT_EQ(Rewriter(Lines{{"regrep", "[url] -> x"}})("GET /c++ HTTP/1.1\r\n\r\n"),
            "GET x++ HTTP/1.1\r\n\r\n");
}

// What the cipher does to bytes, its fuzz target compares with the definition.
TEST(Cipher, KeysFromPasswords) {
  const struct {
    const char* why;
    std::string password;
    TunnelKey key;
  } cases[] = {
      {"no password: off", "", {0, 0}},
      {"odd character", "a", {0x60, 0x10}},
      {"below six characters the step is 16 n", "abcde", {0x32, 0x50}},
      {"xor byte 0 falls back to 16 n", "bbddbb", {0, 0x60}},
      {"which is 0 for 16 characters: off", "pppppppppppppppp", {0, 0}},
      {"characters are unsigned", "\xff\xfe\x80\x81\x82\x83", {0x87, 0x2a}},
      {"longer than a byte counts", std::string(300, 'p'), {0xa0, 0x80}},
  };
  for (const auto& c : cases) {
    const TunnelKey key = derive_tunnel_key(c.password);
    EXPECT_EQ(key.xor_byte, c.key.xor_byte) << c.why;
    EXPECT_EQ(key.step_byte, c.key.step_byte) << c.why;
    EXPECT_EQ(key.on(), c.key.step_byte != 0) << c.why;
  }
}

}  // namespace
}  // namespace vrox::httpmod
