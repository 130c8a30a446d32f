#include "main/helpers.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

namespace vrox {

namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

std::size_t count_occurrences(std::string_view text, std::string_view pattern) {
  std::size_t count = 0;
  for (std::size_t at = find_bytes(text, pattern, 0); at != std::string_view::npos;
       at = find_bytes(text, pattern, at + pattern.size())) {
    ++count;
  }
  return count;
}

// A replacement that is not longer fits into the text itself: the write
// position never overtakes the read position.
void replace_in_place(Buffer& text, std::string_view pattern, std::string_view replacement) {
  const std::span<char> bytes = text.span();
  std::size_t from = 0;
  std::size_t to = 0;
  for (;;) {
    const std::size_t hit = find_bytes(text.view(), pattern, from);
    const std::size_t kept = std::min(hit, bytes.size()) - from;
    std::memmove(bytes.data() + to, bytes.data() + from, kept);
    to += kept;
    if (hit == std::string_view::npos) break;
    std::copy(replacement.begin(), replacement.end(), bytes.data() + to);
    to += replacement.size();
    from = hit + pattern.size();
  }
  text.truncate(to);
}

bool replace_into_copy(Buffer& text, std::string_view pattern, std::string_view replacement) {
  const std::size_t hits = count_occurrences(text.view(), pattern);
  if (hits == 0) return true;
  Buffer grown;
  if (!grown.reserve(text.size() + hits * (replacement.size() - pattern.size()))) return false;
  std::string_view rest = text.view();
  for (;;) {
    const std::size_t hit = find_bytes(rest, pattern, 0);
    if (!grown.append(rest.substr(0, hit))) return false;
    if (hit == std::string_view::npos) break;
    if (!grown.append(replacement)) return false;
    rest.remove_prefix(hit + pattern.size());
  }
  text = std::move(grown);
  return true;
}

}  // namespace

std::optional<Buffer> read_whole_file(const char* path) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "rb"));
  if (file == nullptr) {
    std::perror("fopen()");
    return std::nullopt;
  }
  (void)std::fseek(file.get(), 0, SEEK_END);
  const long length = std::ftell(file.get());
  std::rewind(file.get());
  Buffer text;
  // A directory opens, but its length is no length of bytes.
  if (length < 0 || !text.reserve(static_cast<std::size_t>(length))) {
    std::perror("malloc()");
    return std::nullopt;
  }
  text.commit(std::fread(text.data(), 1, static_cast<std::size_t>(length), file.get()));
  return text;
}

std::size_t find_bytes(std::string_view text, std::string_view pattern, std::size_t from) {
  // The view's own search is faster for short patterns, and takes time by the
  // product of the lengths for long ones.
  constexpr std::size_t short_pattern = 32;
  if (pattern.size() <= short_pattern) return text.find(pattern, from);
  const void* hit = memmem(text.data() + from, text.size() - from, pattern.data(), pattern.size());
  if (hit == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(hit) - text.data());
}

std::string_view skip_whitespace(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(whitespace), text.size()));
  return text;
}

bool replace_all(Buffer& text, std::string_view pattern, std::string_view replacement) {
  if (pattern.empty() || text.empty()) return true;
  if (replacement.size() > pattern.size()) return replace_into_copy(text, pattern, replacement);
  replace_in_place(text, pattern, replacement);
  return true;
}

int to_number(std::string_view text) {
  constexpr std::string_view c_blanks = " \t\n\v\f\r";
  text.remove_prefix(std::min(text.find_first_not_of(c_blanks), text.size()));
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return 0;
  }
  long long value = 0;
  const auto end = text.data() + text.size();
  if (std::from_chars(text.data(), end, value).ec == std::errc::result_out_of_range) {
    return text.starts_with('-') ? 0 : -1;  // the low bits of the smallest and largest long
  }
  return static_cast<int>(value);
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  return a.size() == b.size() && starts_with_ignoring_case(a, b);
}

bool starts_with_ignoring_case(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace vrox
