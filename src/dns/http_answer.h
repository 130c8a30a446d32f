// The address in the response to an HTTP lookup: text in its body.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vrox::dns {

constexpr std::size_t max_http_answer = 2048;  // head and body; what is behind is not read

struct HttpAnswer {
  enum class Verdict : std::uint8_t {
    incomplete,  // nothing can be said yet
    address,
    failure,  // the name is answered with a server failure
    nothing,  // the query ends without a reply
  };
  Verdict verdict = Verdict::incomplete;
  // False: what has not come yet could turn the verdict, though it may be all there
  // is: servers leave the length of the body out, or tell one that is too great.
  bool settled = false;
  // False: the response ended before the length that it tells, within the address.
  bool certain = true;
  std::array<std::uint8_t, 4> address{};
};

// Looks at what has come of a response; `ended` when nothing more will.
[[nodiscard]] HttpAnswer read_http_answer(std::string_view response, bool ended);

}  // namespace vrox::dns
