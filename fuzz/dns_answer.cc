// A DNS message from the network.
#include <cstdint>
#include <span>
#include <vector>

#include "check.h"
#include "dns/message.h"

using vrox::fuzz::check;

namespace {

using Bytes = std::span<const std::uint8_t>;

void check_type(Bytes message, std::uint16_t type) {
  std::vector<vrox::dns::ResolvedAddress> list;
  const int found = vrox::dns::decode_answer(message, type, list);
  check(list.size() == static_cast<std::size_t>(found < 0 ? 0 : found));
  const auto first = vrox::dns::first_address(message, type);
  check(first.has_value() == !list.empty());
  if (first) check(first->bytes == list[0].bytes && first->type == type);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes message(data, size);
  check_type(message, vrox::dns::type_a);
  check_type(message, vrox::dns::type_aaaa);
  const auto question = vrox::dns::question_bytes(message);
  if (question) {
    check(question->size() >= 5 && question->data() >= data &&
          question->data() + question->size() <= data + size);
    check(vrox::dns::answers_query(message, message));
  }
  return 0;
}
