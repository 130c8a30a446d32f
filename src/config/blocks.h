// The grammar of the configuration file: named sections in braces, each with
// lines of the form `key = value`. Walks the text and edits it in place; what
// the sections and keys mean is not known here.
//
//   BlockReader reader(text);
//   Section section;
//   while (reader.next_section(section) == BlockReader::Found::section) {
//     Line line;
//     while (reader.next_line(line) == BlockReader::LineFound::pair) ...
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vrox::config {

enum class SectionKind : std::uint8_t {
  tcp_global,
  tcp_acl,
  tcp_proxy,
  http_mod,
  http_udp,
  dns_global,
  dns_acl,
  socks5,
  tun,
};
constexpr std::size_t section_kinds = 9;

struct Section {
  SectionKind kind = SectionKind::tcp_global;
  std::string_view name;    // the header's text behind the prefix
  std::string_view header;  // all of it, also where no section was found
  std::string_view unread;  // what stands behind the brace on its line
};

// What a header of this kind begins with.
[[nodiscard]] std::string_view section_prefix(SectionKind kind);

struct Line {
  std::string_view key;   // blanks before the '=' included
  std::span<char> value;  // without its quotes, followed by a terminator
};

class BlockReader {
 public:
  // `text` is followed by a terminator. The views that the reader gives lie in it.
  explicit BlockReader(std::span<char> text);

  enum class Found : std::uint8_t {
    section,
    end,
    bad_header,
    brace_attached,  // a brace that touches its header: the configuration ends there
  };
  [[nodiscard]] Found next_section(Section& section);

  enum class LineFound : std::uint8_t {
    pair,
    end_of_body,
    not_closed,  // the text ends before a line that begins with '}'
    no_equals,   // the whole line is in `key`
    no_value,
  };
  // The next line of the section that was found last.
  [[nodiscard]] LineFound next_line(Line& line);

 private:
  static constexpr std::size_t none = std::string_view::npos;

  [[nodiscard]] std::string_view view() const { return {text_.data(), text_.size()}; }
  [[nodiscard]] std::string_view header_before(std::size_t brace) const;
  [[nodiscard]] bool leave_body();
  void enter_body(std::size_t brace);
  [[nodiscard]] std::string_view cut_line();
  [[nodiscard]] LineFound split(std::string_view text, Line& line);

  std::span<char> text_;
  std::size_t scan_ = 0;       // behind the previous section
  std::size_t search_ = 0;     // where the next '{' is looked for; behind scan_ after a comment
  std::size_t line_ = none;    // where the next line begins; none: the body has no more
  std::size_t last_line_ = 0;  // the line that was read last: the closing '}' is not before it
  bool in_body_ = false;
};

}  // namespace vrox::config
