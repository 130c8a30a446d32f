#include "dns/http_answer.h"

#include <gtest/gtest.h>

#include <string>

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
      {"parts keep their low bytes", "257.258.515.1028", Verdict::address, good},
      {"a part without digits is 0", "1.a.-.4", Verdict::address, {1, 0, 0, 4}},
      {"a sign counts", "1.-1.+2. 4", Verdict::address, {1, 255, 2, 4}},
      {"lines are read from a digit above 0", "010.2.3.4", Verdict::address, {10, 2, 3, 4}},
      {"a long second part too", "1.2345.1.1\n1.2.3.4", Verdict::address, good},
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

TEST(DnsHttpAnswer, WhatIsCertainBeforeTheEnd) {
  const std::string seven = "HTTP/1.1 200 OK\r\nContent-Length: 7\r\n\r\n";
  const std::string no_body = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  const struct {
    const char* why;
    std::string response;
    Verdict now;
    bool settled;
    Verdict at_end;
    bool certain = true;
  } cases[] = {
      {"no end of the head", no_body.substr(0, 36), Verdict::incomplete, true, Verdict::nothing},
      {"a head", head, Verdict::incomplete, true, Verdict::nothing},
      {"length 0", no_body, Verdict::failure, true, Verdict::failure},
      {"with case", "HTTP/1.1 200 OK\r\ncontent-length: 0\r\n\r\n", Verdict::incomplete, true,
       Verdict::nothing},
      {"no length: it may go on", head + "1.2.3.4", Verdict::address, false, Verdict::address},
      {"a byte of the address is due", seven + "1.2.3.", Verdict::address, false, Verdict::address,
       false},
      {"all of the length", seven + "1.2.3.4", Verdict::address, true, Verdict::address},
  };
  for (const auto& c : cases) {
    const HttpAnswer now = read_http_answer(c.response, false);
    EXPECT_EQ(now.verdict, c.now) << c.why;
    EXPECT_EQ(now.settled, c.settled) << c.why;
    const HttpAnswer at_end = read_http_answer(c.response, true);
    EXPECT_EQ(at_end.verdict, c.at_end) << c.why;
    EXPECT_EQ(at_end.certain, c.certain) << c.why;
  }
}

}  // namespace
}  // namespace vrox::dns
