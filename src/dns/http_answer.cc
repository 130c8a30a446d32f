// The body is text in lines, in which servers put one or several addresses and
// other things besides. Which of them is taken, and what counts as none, is by
// rules of thumb that servers have come to rely on:
//
//   - each line is read from its first digit 1 to 9, so that "0.0.0.0" is none;
//   - a line that lacks a dot where the address needs one says that the name does
//     not exist, even when further lines follow;
//   - a part of four or more characters before a dot skips the line;
//   - parts are numbers as atoi() reads them, and only their low bytes count.
//
// While the end of the body is not there yet, only what stands on finished lines
// is certain: "1.2.3.4" may be the beginning of "1.2.3.45".
#include "dns/http_answer.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "httpmod/request.h"
#include "main/helpers.h"

namespace vrox::dns {

namespace {

using Verdict = HttpAnswer::Verdict;

constexpr std::size_t max_part = 3;  // characters before a dot

std::uint8_t low_byte(std::string_view number) {
  return static_cast<std::uint8_t>(static_cast<unsigned>(to_number(number)) & 0xff);
}

// `incomplete` sends the reader on to the next line.
Verdict read_line(std::string_view line, std::array<std::uint8_t, 4>& address) {
  line.remove_prefix(std::min(line.find_first_of("123456789"), line.size()));
  for (std::size_t part = 0; part < 3; ++part) {
    const std::size_t dot = line.find('.');
    if (dot == std::string_view::npos) return Verdict::failure;
    if (dot > max_part) return Verdict::incomplete;
    address[part] = low_byte(line.substr(0, dot));
    line.remove_prefix(dot + 1);
  }
  address[3] = low_byte(line);
  return Verdict::address;
}

HttpAnswer read_body(std::string_view body) {
  for (;;) {
    const std::size_t line_feed = body.find('\n');
    const bool finished = line_feed != std::string_view::npos;
    HttpAnswer answer;
    answer.verdict = read_line(body.substr(0, line_feed), answer.address);
    answer.settled = finished;
    if (answer.verdict != Verdict::incomplete) return answer;
    if (!finished) {
      answer.verdict = Verdict::nothing;
      return answer;
    }
    body.remove_prefix(line_feed + 1);
  }
}

std::optional<std::size_t> content_length(std::string_view head) {
  for (httpmod::Line line = httpmod::line_at(head, 0); line.next < head.size();) {
    line = httpmod::line_at(head, line.next);
    constexpr std::string_view name = "Content-Length";
    if (!httpmod::is_header(line.in(head), name)) continue;
    const int length = to_number(line.in(head).substr(name.size() + 1));
    if (length > 0) return static_cast<std::size_t>(length);  // 0 with a body says nothing
  }
  return std::nullopt;
}

// With a length of 0 no body will come. Compared with case and to the line's end,
// as servers write it.
bool says_empty(std::string_view response) {
  return response.find("Content-Length: 0\r") != std::string_view::npos;
}

}  // namespace

HttpAnswer read_http_answer(std::string_view response, bool ended) {
  const HttpAnswer too_little{.verdict = ended ? Verdict::nothing : Verdict::incomplete,
                              .settled = true};
  const auto head_end = httpmod::find_head_end(response);
  if (!head_end) return too_little;
  const std::string_view body = response.substr(*head_end);
  if (body.empty()) {
    if (!says_empty(response)) return too_little;
    return {.verdict = Verdict::failure, .settled = true};
  }
  HttpAnswer answer = read_body(body);
  if (answer.settled) return answer;
  const auto length = content_length(response.substr(0, *head_end));
  const bool is_short = length && body.size() < *length;
  answer.settled = ended || (length && !is_short);
  answer.certain = !is_short;
  // Nothing so far, but more is announced.
  if (!answer.settled && is_short && answer.verdict == Verdict::nothing) return too_little;
  return answer;
}

}  // namespace vrox::dns
