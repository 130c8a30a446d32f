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
  Rewriter(const Rewriter&) = delete;
  Rewriter& operator=(const Rewriter&) = delete;
  ~Rewriter() { free_lists(module); }

  static void free_lists(HttpModModule& module) {
    for (auto* at = module.directives.head; at != nullptr;) delete std::exchange(at, at->next);
    for (auto* at = module.saved_values.head; at != nullptr;) delete std::exchange(at, at->next);
  }

  void came_by(const char* address, std::uint16_t port, std::uint16_t listening = 0) {
    destination = parse_address(address, port).value();
    listen_port = listening;
  }

  std::string operator()(std::string_view request) {
    Buffer buffer;
    EXPECT_TRUE(buffer.assign(request));
    const RequestView view{buffer, method_code(request), destination, running_key, listen_port};
    const bool done = modify_request(view, module, key);
    EXPECT_TRUE(done || buffer.view() == request) << "a failure leaves the request alone";
    return done ? std::string(buffer.view()) : "failed";
  }

  HttpModModule module;
  TunnelKey key;
  SocketAddress destination;
  std::uint8_t running_key = 0;
  std::uint16_t listen_port = 0;
};

TEST(Modify, DirectivesAsConfigured) {
  const struct {
    const char* why;
    const char* key;
    const char* value;
    bool accepted;
    HttpModKind kind;
    const char* left;
    const char* right;
  } cases[] = {
      {"inner quotes", "strrep", "a \" -> \" b", true, HttpModKind::strrep, "a ", " b"},
      {"one quote only", "strrep", "a\"\" -> \"\"b", true, HttpModKind::strrep, "a\"", "\"b"},
      {"tabs are no blanks here", "strrep", "a\t->\tb", true, HttpModKind::strrep, "a\t", "\tb"},
      {"the first arrow", "strrep", "a->b->c", true, HttpModKind::strrep, "a", "b->c"},
      {"no arrow", "strrep", "a-b", false, {}, "", ""},
      {"capitals mean regrep", "STRREP", "a->b", true, HttpModKind::regrep, "a", "b"},
      {"the first letter decides", "sTRREP", "a->b", true, HttpModKind::strrep, "a", "b"},
      {"or the second before", "Save_line", "a->5", true, HttpModKind::save_line, "", ""},
      {"a switch that is not on", "modify_all_request", "off", false, {}, "", ""},
  };
  for (const auto& c : cases) {
    Rewriter rewriter(Lines{});
    ASSERT_EQ(apply_directive(c.key, c.value, rewriter.module), c.accepted) << c.why;
    const HttpModDirective* directive = rewriter.module.directives.head;
    ASSERT_EQ(directive != nullptr, c.accepted) << c.why;
    if (directive == nullptr) continue;
    EXPECT_EQ(directive->kind, c.kind) << c.why;
    EXPECT_EQ(directive->pattern, c.left) << c.why;
    EXPECT_EQ(directive->replacement, c.right) << c.why;
  }
}

struct Case {
  const char* why;
  const char* value;  // of the directive
  const char* request;
  const char* result;
};

TEST(Modify, Directives) {
  const Case set_first{"a head without line feed", "[U]", "GET /a HTTP/1.1\r", "/a"};
  EXPECT_EQ(Rewriter(Lines{{"set_first", set_first.value}})(set_first.request), set_first.result);
  EXPECT_EQ(Rewriter(Lines{})("GET\r\n a"), "failed") << "no line end behind the blank";
  const Case del_lines[] = {
      {"never the request line", "get / http/1.1", "GET / HTTP/1.1: x\r\n\r\n",
       "GET / HTTP/1.1: x\r\n\r\n"},
      {"no line of a longer name", "host",
       "GET / HTTP/1.1\r\nHost: a\r\nHOST:b\r\nHosts: c\r\nX-Host: d\r\nhost:\r\n\r\n",
       "GET / HTTP/1.1\r\nHosts: c\r\nX-Host: d\r\n\r\n"},
      {"a last line without line feed", "A", "GET /b HTTP/1.1\r\nA: b", "GET /b HTTP/1.1\r\n"},
  };
  for (const Case& c : del_lines)
    EXPECT_EQ(Rewriter(Lines{{"del_line", c.value}})(c.request), c.result) << c.why;
  const Case strreps[] = {
      {"a pattern that expands to nothing", "[H] -> x", "GET /x HTTP/1.1\r\nHost: \r\n\r\n",
       "GET /x HTTP/1.1\r\nHost: \r\n\r\n"},
      {"no empty line", "x -> y", "GET /x HTTP/1.1\n\rxxx", "GET /y HTTP/1.1\n\ryxx"},
  };
  for (const Case& c : strreps)
    EXPECT_EQ(Rewriter(Lines{{"strrep", c.value}})(c.request), c.result) << c.why;
}

TEST(Modify, RegularExpressions) {
  const Case cases[] = {
      {"each search is at a line start", "^(G|E|T) -> ", "GETGET / HTTP/1.1\r\n\r\n",
       " / HTTP/1.1\r\n\r\n"},
      {"markers of groups that are not there stay", "/(a) -> /\\1\\2\\0", "GET /a HTTP/1.1\r\n\r\n",
       "GET /a\\2\\0 HTTP/1.1\r\n\r\n"},
      {"an empty match steps over a byte", "z* -> -", "GE /z HTT\r\n\r\n",
       "-G-E- -/-- -H-T-T-\r-\n-\r-\n-"},
      {"nor does an empty one", "[H] -> x", "GET / HTTP/1.1\r\nHost:\r\n\r\n",
       "GET / HTTP/1.1\r\nHost:\r\n\r\n"},
      {"a request may not bring groups into a pattern", "[U] -> x", "GET (T) HTTP/1.1\r\n\r\n",
       "GET (T) HTTP/1.1\r\n\r\n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Rewriter(Lines{{"regrep", c.value}})(c.request), c.result) << c.why;
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

TEST(Modify, HostAndPort) {
  const struct {
    const char* why;
    const char* host;  // null: no Host header
    const char* address;
    std::uint16_t port;
    std::uint16_t listening;
    const char* result;  // [H]|[H_P]
  } cases[] = {
      {"the listening port says nothing", "a.b:81", "10.0.0.1", 80, 80, "a.b:81|a.b:81"},
      {"no number is 0", "a:b", "10.0.0.1", 80, 0, "a:b|a:b:80"},
      {"the bracket replaces a colon, too", nullptr, "::1", 1, 0, "[:1]:1|[:1]:1"},
      {"an empty host is one", "", "10.0.0.1", 80, 0, "|"},
  };
  for (const auto& c : cases) {
    Rewriter rewriter(Lines{{"set_first", "[H]|[H_P]"}, {"regrep", "\r\n(.|\n)* -> "}});
    rewriter.came_by(c.address, c.port, c.listening);
    std::string request = "GET / HTTP/1.1\r\n";
    if (c.host != nullptr) request += "Host: " + std::string(c.host) + "\r\n";
    request += "A: b\r\n\r\n";
    const std::string result = rewriter(request);
    EXPECT_EQ(result.substr(0, result.find_first_of("AH")), c.result) << c.why;
  }
}

TEST(Modify, OnlyTheHostOfConnectIsEnciphered) {
  Rewriter rewriter(Lines{{"set_first", "[H] [H_P]\r\n"}});
  rewriter.key = {0x5a, 0x93};
  rewriter.running_key = 7;
  EXPECT_EQ(rewriter("CONNECT example.com HTTP/1.1\r\n\r\n"),
            "q83zgJ3vit8ct/IH example.com\r\n\r\n");
  rewriter.came_by("10.0.0.1", 80);
  rewriter.running_key = 0xfb;
  EXPECT_EQ(rewriter("CONNECT a:443\r\n\r\n"), "fAjMHO+tEcRuXFv7 10.0.0.1:80\r\n\r\n");
  rewriter.key.step_byte = 0;
  EXPECT_EQ(rewriter("CONNECT a HTTP/1.1\r\n\r\n"), "a a\r\n\r\n");
}

TEST(Modify, SavedValues) {
  Rewriter rewriter(Lines{{"set_first", "use_value(A)|[U]\r\n"},
                          {"save_line", "A -> 60"},
                          {"strrep", "old -> use_value(a)use_value(A)"}});
  SavedValue& saved = *rewriter.module.saved_values.head;
  EXPECT_EQ(saved.interval_s, 3600);
  const auto with = [&](const char* line) {
    return rewriter("GET /old HTTP/1.1\r\n" + std::string(line));
  };
  EXPECT_EQ(with("A: z\r\n\r\n"), "use_value(A)|/use_value(a)z\r\nA: z\r\n\r\n")
      << "the case of the directive counts, and what stands behind it in the file";
  EXPECT_EQ(with("A: early\r\n\r\n"), "z|/use_value(a)z\r\nA: early\r\n\r\n");
  EXPECT_EQ(rewriter.module.revision, 1U);
  saved.captured_at -= 3600;
  EXPECT_EQ(with("B: c\r\n\r\n"), "z|/use_value(a)z\r\nB: c\r\n\r\n");
  EXPECT_EQ(with("A: z\r\n\r\n"), "z|/use_value(a)z\r\nA: z\r\n\r\n");
  EXPECT_EQ(rewriter.module.revision, 1U) << "the same value again is no change";
  saved.interval_s = 0;
  EXPECT_EQ(with("A: y\n\r\n"), "z|/use_value(a)\r\nA: y\n\r\n")
      << "one byte before the line feed is taken for the carriage return";
  EXPECT_EQ(with("A:\n\r\n"), "|/use_value(a)\r\nA:\n\r\n") << "an empty value is one";
  EXPECT_EQ(with("A: end"), "|/use_value(a)end\r\nA: end");
}

TEST(Modify, RequestsBehindOneAnother) {
  const std::string two = "GET /x HTTP/1.1\r\nHost: a\r\n\r\nGET /y HTTP/1.1\r\nHost: b\r\n\r\n";
  Rewriter all(Lines{{"set_first", "[H][U]\r\n"}, {"modify_all_request", "on"}});
  EXPECT_EQ(all(two + "body"), "a/x\r\nHost: a\r\n\r\nb/y\r\nHost: b\r\n\r\nbody");
  EXPECT_EQ(all(two + "GET"), "failed") << "a body that begins like a request is one";
  all.key = {0x5a, 0x93};
  all.running_key = 7;
  EXPECT_EQ(all("GET /x HTTP/1.1\r\nHost: a\r\n\r\nCONNECT ab HTTP/1.1\r\n\r\n"),
            "a/x\r\nHost: a\r\n\r\nsbUH/\r\n\r\n")
      << "each with its own method";
}

TEST(Modify, ACopyKnowsWhatWasCaptured) {
  Rewriter rewriter(Lines{{"save_line", "X -> 1"}, {"save_line", "Y -> 1"}});
  ASSERT_TRUE(store_capture(rewriter.module, *rewriter.module.saved_values.head, "new", 7));
  HttpModModule* copy = copy_module(rewriter.module);
  ASSERT_NE(copy, nullptr);
  const SavedValue& saved = *copy->saved_values.head;
  EXPECT_EQ(saved.header_name, "Y");
  EXPECT_EQ(saved.value.view(), "new");
  EXPECT_TRUE(saved.captured);
  EXPECT_EQ(saved.captured_at, 7);
  EXPECT_FALSE(saved.next->captured);
  Rewriter::free_lists(*copy);
  delete copy;
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

}  // namespace
}  // namespace vrox::httpmod
