#include "dns/message.h"

#include <gtest/gtest.h>

#include <string>

#include "bytes.h"
#include "dns/question.h"
#include "dns/types.h"

namespace vrox::dns {
namespace {

using std::string_literals::operator""s;

constexpr std::uint16_t query_id = 0x1234;

std::string query(std::string_view name, std::uint16_t type = type_a) {
  std::array<std::uint8_t, max_message> message{};
  const std::size_t length = encode_query(message, query_id, name, type);
  return {message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length)};
}

const std::string www = "\3www\7example\0\0\1\0\1"s;  // the question of what follows

std::string answer(const std::string& records, char count, const std::string& question = www) {
  return "\x12\x34\x81\x80\0\1\0"s + count + "\0\0\0\0"s + question + records;
}

std::string record(const std::string& owner, char type, const std::string& data,
                   char record_class = 1) {
  return owner + '\0' + type + '\0' + record_class + "\0\0\0\x3c\0"s +
         static_cast<char>(data.size()) + data;
}

const std::string pointer = "\xc0\x0c"s;  // to the question's name
const std::string ipv6 = "0123456789abcdef";

TEST(DnsMessage, AQueryAsksOneQuestion) {
  EXPECT_EQ(query("www.example"), "\x12\x34\1\0\0\1\0\0\0\0\0\0"s + www);
  EXPECT_EQ(query("www.example."), query("www.example")) << "the root label may be written";
  EXPECT_EQ(query("a", type_aaaa).substr(12), "\1a\0\0\x1c\0\1"s);

  const std::string label(63, 'x');
  const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'x');
  EXPECT_EQ(query(longest).size(), 12 + 255 + 4);
  const std::string refused[] = {"", ".", ".a", "a..b", label + "x", longest + "x"};
  for (const std::string& name : refused) EXPECT_EQ(query(name), "") << name;

  std::array<std::uint8_t, 28> little{};
  EXPECT_EQ(encode_query(little, 1, "www.example", type_a), 0U) << "one byte short";
}

std::string asking(const std::string& name) {
  return "\x12\x34\1\0\0\1\0\0\0\0\0\0"s + name + "\0\1\0\1"s;
}

std::string label_of(std::size_t length) {
  return static_cast<char>(length) + std::string(length, 'x');
}

TEST(DnsQuestion, NamesInDottedText) {
  const struct {
    const char* why;
    std::string message;
    std::string name;
  } cases[] = {
      {"labels", asking("\3www\7Example\0"s), "www.Example"},
      {"what follows does not matter", asking("\1a\0"s) + "\0\0\x29", "a"},
      {"nor do the counts", "\0\0\0\0\0\0\0\0\0\0\0\0"s + "\1a\0\0\1\0\1"s, "a"},
      {"127 characters", asking(label_of(63) + label_of(63) + "\0"s),
       std::string(63, 'x') + "." + std::string(63, 'x')},
      {"128 characters", asking(label_of(63) + label_of(62) + "\1x\0"s), "-"},
      {"a compressed name", asking("\xc0\x0c"s), "-"},
      {"a pointer behind a label", asking("\1a\xc0\x0c"s), "-"},
      {"a cut class", asking("\1a\0"s).substr(0, 18), "-"},
  };
  for (const auto& c : cases) {
    const auto question = read_question(bytes_of(c.message));
    EXPECT_EQ(question ? question->name() : "-", c.name) << c.why;
  }
}

TEST(DnsMessage, OnlyAddressesOfTheWantedTypeCount) {
  const std::string a1 = record(pointer, 1, "\1\2\3\4");
  const std::string a2 = record("\3cdn\xc0\x10"s, 1, "\5\6\7\x8");
  const std::string aaaa = record(pointer, 28, ipv6);
  const std::string cname = record(pointer, 5, "\3cdn\xc0\x10"s);
  const struct {
    const char* why;
    std::string message;
    int found;
    std::string last = {};
  } cases[] = {
      {"all of a kind", answer(a1 + aaaa + a2, 3), 2, "\5\6\7\x8"},
      {"behind an alias", answer(cname + a2 + a1, 3), 2, "\1\2\3\4"},
      {"class CH", answer(record(pointer, 1, "\1\2\3\4", 3) + a2, 2), 1, "\5\6\7\x8"},
      {"the root as owner", answer(record("\0"s, 1, "\1\2\3\4"), 1), 1, "\1\2\3\4"},
      {"an A record of three bytes", answer(a1 + record(pointer, 1, "\1\2\3"), 2), -1},
      {"more records told than there are", answer(a1, 2), -1},
      {"a record cut in its address", answer(a1 + a2.substr(0, a2.size() - 1), 2), -1},
      {"a record cut in its head", answer(a1 + cname.substr(0, 11), 2), -1},
      {"an owner that points at itself", answer(record("\xc0\x1d"s, 1, "\1\2\3\4"), 1), -1},
      {"owners that point at each other", answer(record("\xc0\x1f\xc0\x1d"s, 1, "\1\2\3\4"), 1),
       -1},
      {"a query is no answer", query("www.example"), -1},
  };
  for (const auto& c : cases) {
    std::vector<ResolvedAddress> list;
    EXPECT_EQ(decode_answer(bytes_of(c.message), type_a, list), c.found) << c.why;
    EXPECT_EQ(list.size(), static_cast<unsigned>(std::max(c.found, 0))) << c.why;
    EXPECT_EQ(list.empty() ? "" : text_of(list.back().bytes).substr(0, 4), c.last) << c.why;
  }
}

TEST(DnsMessage, AnAnswerBelongsToItsQuery) {
  const std::string asked = query("www.example");
  const struct {
    const char* why;
    std::string message;
    bool belongs;
  } cases[] = {
      {"in other letters", answer("", 0, "\3WWW\7Example\0\0\1\0\1"s), true},
      {"another name", answer("", 0, "\3www\7examplf\0\0\1\0\1"s), false},
      {"another type, though the letter 'a' is 'A'", answer("", 0, "\3www\7example\0\0A\0\1"s),
       false},
      {"refused without a question", "\x12\x34\x81\x81\0\0\0\0\0\0\0\0"s, true},
      {"addresses without a question",
       "\x12\x34\x81\x80\0\0\0\1\0\0\0\0"s + record("\0"s, 1, "\1\2\3\4"), false},
  };
  const std::string cut = asked.substr(0, asked.size() - 1);
  EXPECT_FALSE(question_bytes(bytes_of(cut))) << "no whole question";
  for (const auto& c : cases) {
    EXPECT_EQ(answers_query(bytes_of(c.message), bytes_of(asked)), c.belongs) << c.why;
  }
}

}  // namespace
}  // namespace vrox::dns
