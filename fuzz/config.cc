// The grammar of the configuration file and the values that are parsed by hand.
// What keys do is left out: it opens sockets and is kept for ever.
#include <cstdint>
#include <string>
#include <string_view>

#include "acl/rule.h"
#include "check.h"
#include "config/blocks.h"
#include "config/syntax.h"

using vrox::fuzz::check;

namespace {

using vrox::config::BlockReader;

void check_inside(const std::string& text, const char* data, std::size_t size) {
  check(data >= text.data() && data + size <= text.data() + text.size());
}

void read_lines(BlockReader& reader, const std::string& text) {
  vrox::config::Line line;
  while (reader.next_line(line) == BlockReader::LineFound::pair) {
    check_inside(text, line.key.data(), line.key.size());
    check_inside(text, line.value.data(), line.value.size());
    check(*(line.value.data() + line.value.size()) == '\0');
    const std::string_view value(line.value.data(), line.value.size());
    (void)vrox::config::split_address_port(value);
    (void)vrox::config::has_option(value, "TFO");
    (void)vrox::acl::parse_rule_address(value);
    const std::string_view plain = vrox::config::unescape(line.value);
    check(plain.size() <= line.value.size() && *(plain.data() + plain.size()) == '\0');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(data, data + size);  // its own block, so that no read passes its end unseen
  BlockReader reader(text);
  vrox::config::Section section;
  while (reader.next_section(section) == BlockReader::Found::section) {
    check_inside(text, section.name.data(), section.name.size());
    read_lines(reader, text);
  }
  return 0;
}
