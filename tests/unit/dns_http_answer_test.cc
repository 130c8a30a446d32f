#include "dns/http_answer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vrox::dns {
namespace {

using Verdict = HttpAnswer::Verdict;
using Quad = std::array<std::uint8_t, 4>;

const std::string head = "HTTP/1.1 200 OK\r\nServer: x\r\n\r\n";
constexpr Quad good{1, 2, 3, 4};

TEST(DnsHttpAnswer, TheFirstAddressByTheRulesOfThumb) {
  const struct {
    const char* why;
    const char* body;
    Verdict verdict;
    Quad address{};
  } cases[] = {
      {"an address alone", "1.2.3.4", Verdict::address, good},
      {"text before and behind", "ip: 1.2.3.4, ttl 60\r\n", Verdict::address, good},
      {"parts keep their low bytes", "257.258.515.1028", Verdict::address, good},
      {"a part without digits is 0", "1.a.-.4", Verdict::address, {1, 0, 0, 4}},
      {"a sign counts", "1.-1.+2. 4", Verdict::address, {1, 255, 2, 4}},
      {"lines are read from a digit above 0", "010.2.3.4", Verdict::address, {10, 2, 3, 4}},
      {"a long second part too", "1.2345.1.1\n1.2.3.4", Verdict::address, good},
      {"no digit, no dot: none", "NXDOMAIN", Verdict::failure},
      {"even with an address below", "hello\n1.2.3.4", Verdict::failure},
      {"a dot of the next line does not count", "1.2.3\n4.5.6.7", Verdict::failure},
      {"0.0.0.0 has no digit to begin with", "0.0.0.0", Verdict::failure},
      {"the size line of a chunked body", "7\r\n1.2.3.4\r\n0\r\n\r\n", Verdict::failure},
      {"nothing behind a skipped line", "1234.1.1.1", Verdict::nothing},
  };
  for (const auto& c : cases) {
    const HttpAnswer answer = read_http_answer(head + c.body, true);
    EXPECT_EQ(answer.verdict, c.verdict) << c.why;
    EXPECT_TRUE(answer.settled) << c.why;
    EXPECT_EQ(c.verdict == Verdict::address ? answer.address : c.address, c.address) << c.why;
  }
}

TEST(DnsHttpAnswer, AnEmptyBodyIsAFailureOnlyWhenTheHeadSaysSo) {
  const struct {
    const char* why;
    std::string response;
    Verdict now;
    Verdict at_end;
  } cases[] = {
      {"nothing", "", Verdict::incomplete, Verdict::nothing},
      {"no end of the head", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n", Verdict::incomplete,
       Verdict::nothing},
      {"a head", head, Verdict::incomplete, Verdict::nothing},
      {"length 0", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", Verdict::failure,
       Verdict::failure},
      {"with case", "HTTP/1.1 200 OK\r\ncontent-length: 0\r\n\r\n", Verdict::incomplete,
       Verdict::nothing},
      {"another length", "HTTP/1.1 200 OK\r\nContent-Length: 07\r\n\r\n", Verdict::incomplete,
       Verdict::nothing},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(read_http_answer(c.response, false).verdict, c.now) << c.why;
    EXPECT_EQ(read_http_answer(c.response, true).verdict, c.at_end) << c.why;
  }
}

// Fed byte by byte, a verdict that counts as settled never turns.
TEST(DnsHttpAnswer, ASettledVerdictStays) {
  const std::string known = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n1.2.3.45\n";
  const std::string bodies[] = {"1.2.3.45\n",    "1.2.3.45",          "1234.1.1.1\n1.2.3.4\nx",
                                "none\n1.2.3.4", "x1.2.3.4\n5.6.7.8", "1.2.3"};
  std::vector<std::string> responses{known};
  for (const std::string& body : bodies) responses.push_back(head + body);
  for (const std::string& response : responses) {
    const HttpAnswer last = read_http_answer(response, true);
    bool settled = false;
    for (std::size_t length = 0; length <= response.size(); ++length) {
      const HttpAnswer answer = read_http_answer(response.substr(0, length), false);
      if (answer.verdict == Verdict::incomplete || !answer.settled) {
        EXPECT_FALSE(settled) << response << " cut at " << length;
        continue;
      }
      settled = true;
      EXPECT_EQ(answer.verdict, last.verdict) << response << " cut at " << length;
      EXPECT_EQ(answer.address, last.address) << response << " cut at " << length;
    }
  }
  const std::string cut = known.substr(0, known.size() - 2);
  EXPECT_FALSE(read_http_answer(cut, false).settled) << "a byte of the address is due";
  EXPECT_FALSE(read_http_answer(cut, true).certain) << "and never came";
  EXPECT_TRUE(read_http_answer(known, true).certain);
  EXPECT_FALSE(read_http_answer(head + "1.2.3.4", false).settled) << "no length: it may go on";
}

}  // namespace
}  // namespace vrox::dns
