// Request heads: gathered byte by byte or seen whole they end in the same
// places, and what is read of them lies inside.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "check.h"
#include "httpmod/request.h"

using vrox::fuzz::check;

namespace {

using namespace vrox::httpmod;

void check_inside(std::string_view text, std::string_view part) {
  check(part.empty() ||
        (part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size()));
}

bool complete_at_once(std::string_view gathered) {
  HeadScan scan;
  return request_complete(gathered, scan);
}

void check_gathering(std::string_view text) {
  HeadScan scan;
  std::size_t start = 0;
  for (std::size_t end = 1; end <= text.size(); ++end) {
    const std::string_view gathered = text.substr(start, end - start);
    const bool complete = request_complete(gathered, scan);
    check(complete == complete_at_once(gathered));
    if (!complete) continue;
    start = end;  // handed on
    scan = {};
  }
}

void check_parsers(std::string_view text) {
  const std::optional<std::size_t> end = find_head_end(text);
  check(!end || (*end >= 2 && *end <= text.size()));
  const std::string_view head = text.substr(0, end.value_or(text.size()));
  if (const auto line = parse_request_line(head)) {
    for (const std::string_view part : {line->method, line->url, line->version}) {
      check_inside(head, part);
    }
    check(line->method.size() <= 7 && line->version.size() <= 8);
  }
  if (const auto target = parse_target(text)) {
    check_inside(text, target->url);
    check(target->head_end == end);
    check(target->uri.starts_with('/'));
  }
  if (const auto host = find_request_host(head)) check_inside(head, *host);
  const std::uint32_t code = method_code(text);
  check(code != 0 && (code & (code - 1)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1024) return 0;  // the whole is looked at once for every byte
  const std::string text(data, data + size);
  check_gathering(text);
  check_parsers(text);
  return 0;
}
