#include "config/blocks.h"

#include <algorithm>
#include <array>

#include "config/syntax.h"
#include "main/helpers.h"

namespace vrox::config {

namespace {

struct Header {
  std::string_view prefix;
  SectionKind kind;
};

// Tried in this order and on the prefix only: "Tunnel" is Tun.
constexpr std::array<Header, section_kinds> headers{{
    {"tcp::Global", SectionKind::tcp_global},
    {"tcpAcl::", SectionKind::tcp_acl},
    {"tcpProxy::", SectionKind::tcp_proxy},
    {"httpMod::", SectionKind::http_mod},
    {"httpUDP", SectionKind::http_udp},
    {"dns::Global", SectionKind::dns_global},
    {"dnsAcl", SectionKind::dns_acl},
    {"socks5", SectionKind::socks5},
    {"Tun", SectionKind::tun},
}};

constexpr std::string_view comment = "//";

std::optional<Section> section_of(std::string_view header) {
  for (const Header& row : headers) {
    if (!is_key(header, row.prefix)) continue;
    const std::string_view rest = header.substr(row.prefix.size());
    return Section{.kind = row.kind,
                   .name = rest.substr(0, rest.find_first_of(whitespace)),
                   .header = header,
                   .unread = {}};
  }
  return std::nullopt;
}

}  // namespace

std::string_view section_prefix(SectionKind kind) {
  for (const Header& row : headers) {
    if (row.kind == kind) return row.prefix;
  }
  return {};
}

// A zero byte ends the text for the C library's functions, which read values
// later; so it does here.
BlockReader::BlockReader(std::span<char> text)
    : text_(text.first(
          static_cast<std::size_t>(std::find(text.begin(), text.end(), '\0') - text.begin()))) {}

BlockReader::Found BlockReader::next_section(Section& section) {
  if (in_body_ && !leave_body()) return Found::end;
  for (;;) {
    const std::size_t brace = view().find('{', search_);
    if (brace == none) return Found::end;
    const std::string_view header = header_before(brace);
    search_ = brace + 1;
    // The lines behind a commented-out header are not skipped: a brace among
    // them opens a section of its own.
    if (header.starts_with(comment)) continue;
    // A brace that touches the name ends the configuration there, as a switch
    // for all that follows.
    section.header = header;
    if (header.empty() || header.find_first_of(whitespace, 1) == none) return Found::brace_attached;
    const std::optional<Section> found = section_of(header);
    if (!found) return Found::bad_header;
    section = *found;
    enter_body(brace);
    if (line_ != none) section.unread = view().substr(brace + 1, line_ - brace - 1);
    return Found::section;
  }
}

// The last line before the brace. Without a line of its own it begins right
// behind the previous section, blanks included, which then hide the name.
std::string_view BlockReader::header_before(std::size_t brace) const {
  const std::string_view between = view().substr(scan_, brace - scan_);
  const std::size_t line_feed = between.rfind('\n');
  if (line_feed == none) return between;
  const std::string_view line = skip_whitespace(between.substr(line_feed));
  return line.empty() ? between : line;
}

bool BlockReader::leave_body() {
  in_body_ = false;
  const std::size_t closing = view().find('}', last_line_);
  if (closing == none) return false;
  scan_ = search_ = closing + 1;
  return true;
}

// What stands behind the brace on its own line is ignored.
void BlockReader::enter_body(std::size_t brace) {
  in_body_ = true;
  last_line_ = brace + 1;
  line_ = view().find('\n', brace + 1);
}

BlockReader::LineFound BlockReader::next_line(Line& line) {
  while (line_ != none) {
    line_ = view().find_first_not_of(whitespace, line_);
    if (line_ == none) return LineFound::not_closed;
    last_line_ = line_;
    const std::string_view rest = view().substr(line_);
    if (rest.starts_with('}')) {
      line_ = none;
    } else if (rest.starts_with(comment)) {
      line_ = view().find('\n', line_);
    } else {
      return split(cut_line(), line);
    }
  }
  return LineFound::end_of_body;
}

// The line without its ';', followed by a terminator; moves to the next one.
// A carriage return goes only together with a ';' before it.
std::string_view BlockReader::cut_line() {
  const std::size_t start = line_;
  const std::size_t line_feed = view().find('\n', start);
  const bool is_last = line_feed == none;
  const std::string_view whole = view().substr(start, is_last ? none : line_feed - start);
  std::size_t length = whole.size();
  if (!is_last && whole.ends_with(";\r")) {
    length -= 2;
  } else if (!is_last && whole.ends_with(';')) {
    length -= 1;
  }
  line_ = is_last ? none : line_feed + 1;
  if (!is_last) text_[start + length] = '\0';
  return whole.substr(0, length);
}

BlockReader::LineFound BlockReader::split(std::string_view text, Line& line) {
  line.key = text;
  const std::size_t equals = text.find('=');
  if (equals == none) return LineFound::no_equals;
  line.key = text.substr(0, equals);
  const std::string_view value = skip_whitespace(text.substr(equals + 1));
  if (value.empty()) return LineFound::no_value;
  const auto start = static_cast<std::size_t>(value.data() - text_.data());
  line.value = text_.subspan(start, value.size());
  if (line.value.front() == '"') line.value = line.value.subspan(1);
  if (!line.value.empty() && line.value.back() == '"') {
    line.value.back() = '\0';
    line.value = line.value.first(line.value.size() - 1);
  }
  return LineFound::pair;
}

}  // namespace vrox::config
