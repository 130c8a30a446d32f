#include "httpmod/pattern.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "httpmod/limit.h"

namespace vrox::httpmod {

namespace {

constexpr std::size_t group_count = 10;  // the whole match and \1 to \9

struct Match {
  std::array<regmatch_t, group_count> groups{};

  [[nodiscard]] bool has(std::size_t group) const { return groups[group].rm_so >= 0; }
  [[nodiscard]] std::size_t start() const { return static_cast<std::size_t>(groups[0].rm_so); }
  [[nodiscard]] std::size_t end() const { return static_cast<std::size_t>(groups[0].rm_eo); }
  [[nodiscard]] std::string_view text(std::string_view searched, std::size_t group) const {
    const auto from = static_cast<std::size_t>(groups[group].rm_so);
    return searched.substr(from, static_cast<std::size_t>(groups[group].rm_eo) - from);
  }
};

bool has_marker(std::string_view replacement) {
  return replacement.find('\\') != std::string_view::npos;
}

// Without markers nobody asks for groups, and finding a match alone is cheaper.
bool search(const regex_t& regex, std::string_view text, bool want_groups, Match& match) {
  match.groups[0].rm_so = 0;
  match.groups[0].rm_eo = static_cast<regoff_t>(text.size());
  return regexec(&regex, text.data(), want_groups ? group_count : 1, match.groups.data(),
                 REG_STARTEND) == 0;
}

// Groups are put in one after the other, so that a group's text may bring the
// marker of a later group; the first group that took no part ends it.
bool put_groups(std::string_view searched, const Match& match, Buffer& replacement) {
  std::array<char, 2> marker{'\\', '1'};
  for (std::size_t group = 1; group < group_count && match.has(group); ++group, ++marker[1]) {
    const std::string_view text = match.text(searched, group);
    if (!replace_within_limit(replacement, {marker.data(), marker.size()}, text)) return false;
  }
  return true;
}

}  // namespace

const regex_t* CompiledPattern::compile(std::string_view text) {
  if (!known_ || text_.view() != text) {
    drop();
    if (!text_.assign(text)) return nullptr;
    known_ = true;
    valid_ = regcomp(&regex_, text_.c_str(), REG_EXTENDED | REG_ICASE | REG_NEWLINE) == 0;
  }
  return valid_ ? &regex_ : nullptr;
}

void CompiledPattern::drop() {
  if (valid_) regfree(&regex_);
  valid_ = false;
  known_ = false;
}

bool replace_matches(Buffer& text, const regex_t& regex, std::string_view replacement) {
  const bool want_groups = has_marker(replacement);
  Buffer result;
  Buffer filled;
  std::string_view rest = text.view();
  Match match;
  bool changed = false;
  while (search(regex, rest, want_groups, match)) {
    changed = true;
    if (!append_within_limit(result, rest.substr(0, match.start()), text.size())) return false;
    if (want_groups) {
      if (!filled.assign(replacement) || !put_groups(rest, match, filled)) return false;
    }
    if (!append_within_limit(result, want_groups ? filled.view() : replacement, text.size()))
      return false;
    std::size_t resume = match.end();
    if (match.start() == match.end()) {  // an empty match would be found here again
      if (resume == rest.size()) {
        rest = {};
        break;
      }
      if (!append_within_limit(result, rest.substr(resume, 1), text.size())) return false;
      ++resume;
    }
    rest.remove_prefix(resume);
  }
  if (!changed) return true;
  if (!append_within_limit(result, rest, text.size())) return false;
  text = std::move(result);
  return true;
}

}  // namespace vrox::httpmod
