// A query from a client, and the replies that are made of it.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

#include "check.h"
#include "dns/message.h"
#include "dns/question.h"
#include "dns/reply.h"

using vrox::fuzz::check;

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::array<std::uint8_t, 4> address{192, 0, 2, 1};

void check_reply(Bytes reply, Bytes query) {
  check(reply.size() <= vrox::dns::max_message && reply[2] >= 0x80);
  check(std::ranges::equal(reply.first(2), query.first(2)));
  const auto question = vrox::dns::read_question(query);
  check(std::ranges::equal(reply.subspan(12, question->bytes.size()), question->bytes));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes query(data, size);
  const auto question = vrox::dns::read_question(query);
  if (!question) return 0;
  check(question->type != 0 && !question->name().empty());
  check(std::strlen(question->dotted.data()) == question->dotted_length);
  check(question->bytes.data() == data + 12 && question->bytes.size() <= size - 12);
  vrox::dns::ReplyBuffer buffer{};
  check_reply(build_failure(buffer, query, *question), query);
  const Bytes answer = build_answer(buffer, query, *question, address);
  check_reply(answer, query);
  if (question->type == vrox::dns::type_a || question->type == vrox::dns::type_aaaa) {
    check(vrox::dns::first_address(answer, question->type).has_value());
  }
  return 0;
}
