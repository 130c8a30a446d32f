// The response to an HTTP lookup, as it comes in.
#include <cstdint>
#include <string>
#include <string_view>

#include "check.h"
#include "dns/http_answer.h"
#include "main/helpers.h"

using vrox::fuzz::check;

namespace {

using vrox::dns::HttpAnswer;

bool tells_length(std::string_view text) {
  constexpr std::string_view name = "content-length";
  while (!text.empty() && !vrox::starts_with_ignoring_case(text, name)) text.remove_prefix(1);
  return !text.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data,
                         data + size);  // its own block, so that no read passes its end unseen
  const std::string_view response = std::string_view(text).substr(0, vrox::dns::max_http_answer);
  const HttpAnswer whole = vrox::dns::read_http_answer(response, true);
  check(whole.settled && whole.verdict != HttpAnswer::Verdict::incomplete);
  // Once settled on a finished line, a verdict stays; a told length may be a lie.
  const bool told = tells_length(text);
  for (std::size_t cut = 0; cut < response.size() && !told; ++cut) {
    const HttpAnswer part = vrox::dns::read_http_answer(response.substr(0, cut), false);
    if (!part.settled || part.verdict == HttpAnswer::Verdict::incomplete) continue;
    check(part.verdict == whole.verdict && part.address == whole.address);
  }
  return 0;
}
