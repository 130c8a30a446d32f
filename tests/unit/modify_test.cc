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
  ~Rewriter() {
    for (auto* at = module.directives.head; at != nullptr;) delete std::exchange(at, at->next);
    for (auto* at = module.saved_values.head; at != nullptr;) delete std::exchange(at, at->next);
  }

  std::string operator()(std::string_view request) {
    Buffer buffer;
    EXPECT_TRUE(buffer.assign(request));
    const RequestView view{buffer, method_code(request), destination, 7, listen_port};
    const bool done = modify_request(view, module, key);
    EXPECT_TRUE(done || buffer.view() == request) << "a failure leaves the request alone";
    return done ? std::string(buffer.view()) : "failed";
  }

  HttpModModule module;
  TunnelKey key;
  SocketAddress destination;
  std::uint16_t listen_port = 0;
};

TEST(Modify, DirectivesAsConfigured) {
  const struct {
    const char* why;
    const char* key;
    const char* value;
    const char* parsed;  // [pattern][replacement], behind the first letter of its kind
  } cases[] = {
      {"inner quotes", "strrep", "a \" -> \" b", "s[a ][ b]"},
      {"one quote only", "strrep", "a\"\" -> \"\"b", "s[a\"][\"b]"},
      {"tabs are no blanks here", "strrep", "a\t->\tb", "s[a\t][\tb]"},
      {"the first arrow", "strrep", "a->b->c", "s[a][b->c]"},
      {"no arrow", "strrep", "a-b", ""},
      {"capitals mean regrep", "STRREP", "a->b", "r[a][b]"},
      {"the first letter decides", "sTRREP", "a->b", "s[a][b]"},
      {"or the second before", "Save_line", "a->5", "l[][]"},
      {"a switch that is not on", "modify_all_request", "off", ""},
  };
  for (const auto& c : cases) {
    Rewriter rewriter(Lines{});
    std::string parsed;
    EXPECT_EQ(apply_directive(c.key, c.value, rewriter.module), *c.parsed != '\0') << c.why;
    for (const HttpModDirective& at : rewriter.module.directives) {
      const bool is_strrep = at.kind == HttpModKind::strrep;
      parsed += is_strrep ? "s[" : at.kind == HttpModKind::regrep ? "r[" : "l[";
      parsed.append(at.pattern).append("][").append(at.replacement).append("]");
    }
    EXPECT_EQ(parsed, c.parsed) << c.why;
  }
}

TEST(Modify, Directives) {
  const struct {
    const char* why;
    const char* key;
    const char* value;
    std::string request;
    std::string result;
  } cases[] = {
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
    const char* header;
    const char* address;
    std::uint16_t port;
    const char* result;  // [H]|[H_P]
  } cases[] = {
      {"the listening port says nothing", "Host: a.b:81\r\n", "10.0.0.1", 8080, "a.b:81|a.b:81"},
      {"no number is 0", "Host: a:b\r\n", "10.0.0.1", 80, "a:b|a:b:80"},
      {"the bracket replaces a colon, too", "", "::1", 1, "[:1]:1|[:1]:1"},
      {"an empty host is one", "Host: \r\n", "10.0.0.1", 80, "|"},
  };
  for (const auto& c : cases) {
    Rewriter rewriter(Lines{{"set_first", "[H]|[H_P]\r\n"}});
    rewriter.destination = parse_address(c.address, c.port).value();
    rewriter.listen_port = 8080;
    const std::string result = rewriter("GET / HTTP/1.1\r\n" + std::string(c.header) + "\r\n");
    EXPECT_EQ(result.substr(0, result.find('\r')), c.result) << c.why;
  }
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

}  // namespace
}  // namespace vrox::httpmod
