#include "check/checker.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "acl/rule.h"
#include "check/forms.h"
#include "check/nearest.h"
#include "config/effects.h"
#include "config/known_keys.h"
#include "config/reader.h"
#include "config/resolve.h"
#include "httpmod/module.h"
#include "main/buffer.h"
#include "main/helpers.h"
#include "tcp/module.h"

namespace vrox::check {

namespace {

using config::Fault;
using config::Problem;
using config::SectionKind;

// A string of the pieces, each a string, a view or a literal.
template <class... Pieces>
std::string join(const Pieces&... pieces) {
  std::string text;
  (text.append(pieces), ...);
  return text;
}

std::string quoted(std::string_view text) { return join("'", text, "'"); }

std::string_view trim_end(std::string_view text) {
  return text.substr(0, text.find_last_not_of(whitespace) + 1);
}

std::string did_you_mean(std::string_view word, const std::vector<std::string_view>& candidates) {
  const std::string_view meant = nearest(word, candidates);
  return meant.empty() ? std::string() : join("; did you mean ", quoted(meant), "?");
}

std::vector<std::string_view> spellings(SectionKind section) {
  std::vector<std::string_view> list;
  for (const config::KnownKey& key : config::known_keys(section)) list.push_back(key.spelling);
  return list;
}

std::vector<std::string_view> prefixes() {
  std::vector<std::string_view> list(config::all_sections.size());
  std::transform(config::all_sections.begin(), config::all_sections.end(), list.begin(),
                 config::section_prefix);
  return list;
}

template <class T>
std::vector<std::string_view> names(const List<T>& list) {
  std::vector<std::string_view> all;
  for (const T& element : list) all.push_back(element.name);
  return all;
}

std::vector<std::string_view> rule_names() {
  std::vector<std::string_view> all = names(acl::rule_lists.at_connect);
  for (const std::string_view name : names(acl::rule_lists.on_request)) all.push_back(name);
  return all;
}

class Checker final : public config::Watcher {
 public:
  // `text` is what is read and edited, `original` the same before.
  Checker(std::string_view text, std::string_view original) : text_(text), original_(original) {}

  void on_section(const config::Section& section) override {
    section_ = section;
    device_made_ = false;
    if (section.kind == SectionKind::tcp_acl) rules_.push_back(section);
    if (!skip_whitespace(section.unread).empty()) {
      warn(section.unread, "what stands behind the '{' on its line is not read");
    }
  }

  void on_line(const config::Line& line) override {
    const std::string_view value(line.value.data(), line.value.size());
    look_at_key(line.key);
    look_at_value(value);
  }

  [[nodiscard]] bool on_problem(const Problem& problem) override {
    const std::string_view value = problem.value.value_or(std::string_view());
    switch (problem.fault) {
      case Fault::bad_header:
        refuse_header(problem.key);
        return true;
      case Fault::brace_attached:
        warn(problem.key, "the configuration ends here: a blank is missing before the '{'");
        return true;
      case Fault::not_closed:
        refuse(section_.header, std::string(not_closed_text));
        return false;
      case Fault::no_equals:
        return refuse_line(problem.key);
      case Fault::no_value:
        refuse(problem.key, join(quoted(trim_end(problem.key)), " has no value"));
        return true;
      case Fault::not_taken:
      case Fault::failed:
        refuse_key(problem.key, value);
        return true;
      case Fault::included_rule:
      case Fault::rematch_rule:
        refuse_name(value, "tcpAcl::", rule_names());
        return true;
      case Fault::module:
        refuse_name(value, "tcpProxy::", names(tcp::modules));
        return true;
      case Fault::http_mod:
      case Fault::tunnel_http_mod:
      case Fault::service_http_mod:
        refuse_name(value, "httpMod::", names(httpmod::modules));
        return true;
      case Fault::tunnel_request:
        refuse({}, join("the tunnel request of tcpProxy::", problem.key, " cannot be built"));
        return true;
    }
    return false;
  }

  // Once all is read.
  void look_at_rules() {
    for (const config::Section& section : rules_) {
      const acl::Rule* rule = config::find_rule(section.name);
      if (rule == nullptr || !rule->conditions.empty()) continue;
      warn(section.header, "a rule without a condition never matches");
    }
  }

  [[nodiscard]] std::vector<Finding> findings() {
    std::vector<Finding> list;
    std::stable_sort(notes_.begin(), notes_.end(),
                     [](const Note& a, const Note& b) { return a.offset < b.offset; });
    for (const Note& note : notes_) list.push_back(located(note));
    return list;
  }

 private:
  struct Note {
    std::size_t offset;
    bool refused;
    std::string text;
  };

  static constexpr std::string_view not_closed_text =
      "this section is not closed: its '}' must begin a line";

  // A rule inherits what tcp::Global names; it is wrong once.
  void add(std::string_view at, bool refused, std::string text) {
    const std::size_t offset =
        at.data() == nullptr ? 0 : static_cast<std::size_t>(at.data() - text_.data());
    for (const Note& note : notes_) {
      if (note.offset == offset && note.text == text) return;
    }
    notes_.push_back({offset, refused, std::move(text)});
  }
  void warn(std::string_view at, std::string text) { add(at, false, std::move(text)); }
  void refuse(std::string_view at, std::string text) { add(at, true, std::move(text)); }

  [[nodiscard]] Finding located(const Note& note) const {
    const std::string_view before = original_.substr(0, note.offset);
    const std::size_t feed = before.rfind('\n');  // npos + 1 is 0
    const auto feeds = std::count(before.begin(), before.end(), '\n');
    return {.line = static_cast<std::size_t>(feeds) + 1,
            .column = note.offset - (feed + 1) + 1,
            .refused = note.refused,
            .text = note.text};
  }

  [[nodiscard]] std::string_view section_text() const {
    return config::section_prefix(section_.kind);
  }

  void look_at_key(std::string_view key) {
    const std::string_view bare = config::bare_key(section_.kind, key);
    const std::optional<config::Recognised> known = config::recognise(section_.kind, bare);
    if (!known) return;
    if (!known->as_spelled) {
      warn(key, join(quoted(bare), " is read as ", quoted(known->key.spelling)));
    }
    if (section_.kind != SectionKind::tun) return;
    if (device_made_) warn(key, "this comes too late: 'tun_device' has made the device");
    if (known->key.keyword == "tun_device") device_made_ = true;
  }

  void look_at_value(std::string_view value) {
    if (value.ends_with('\r')) {
      warn(value, "a carriage return ends the value: end the line with ';', or with LF alone");
    } else if (trim_end(value).size() < value.size() && trim_end(value).ends_with(';')) {
      warn(value, "the ';' belongs to the value: blanks follow it");
    } else if (const std::size_t end = value.find(';'); end != std::string_view::npos) {
      if (!skip_whitespace(value.substr(end + 1)).starts_with("//")) return;
      warn(value.substr(end), "a comment has a line of its own: this one belongs to the value");
    }
  }

  // Only behind a line feed are blanks skipped.
  void refuse_header(std::string_view header) {
    if (whitespace.find(header.front()) != std::string_view::npos) {
      return refuse(header, "no blank may stand here before a header");
    }
    refuse(header, join("no section begins like this", did_you_mean(trim_end(header), prefixes())));
  }

  // Behind a header where a line is expected nothing makes sense any more.
  [[nodiscard]] bool refuse_line(std::string_view line) {
    const bool is_header = trim_end(line).ends_with('{');
    if (is_header) {
      refuse(section_.header, std::string(not_closed_text));
    } else {
      refuse(line, "this line has no '='");
    }
    return !is_header;
  }

  void refuse_key(std::string_view key, std::string_view value) {
    const std::string_view bare = config::bare_key(section_.kind, key);
    if (const auto known = config::recognise(section_.kind, bare)) {
      const std::string_view form = form_of(known->key.keyword);
      refuse(value.empty() ? key : value,
             form.empty() ? join(quoted(known->key.spelling), " does not take this value")
                          : join(quoted(known->key.spelling), " takes ", form));
      return;
    }
    std::string text = join(section_text(), " has no key ", quoted(bare));
    const std::string owner = owner_of(bare);
    text += owner.empty() ? did_you_mean(bare, spellings(section_.kind)) : owner;
    refuse(key, std::move(text));
  }

  // Where the key would be known.
  [[nodiscard]] static std::string owner_of(std::string_view bare) {
    for (const SectionKind kind : config::all_sections) {
      const auto known = config::recognise(kind, bare);
      if (known && known->as_spelled) return join("; it is one of ", config::section_prefix(kind));
    }
    return {};
  }

  void refuse_name(std::string_view name, std::string_view prefix,
                   const std::vector<std::string_view>& known) {
    refuse(name, join("there is no section ", prefix, name, did_you_mean(name, known)));
  }

  std::string_view text_;
  std::string_view original_;
  config::Section section_;
  bool device_made_ = false;
  std::vector<config::Section> rules_;
  std::vector<Note> notes_;
};

}  // namespace

std::vector<Finding> check_configuration(std::string_view text, bool ask) {
  config::effects = {.open = false, .ask = ask};
  std::string read(text);  // what is read is edited
  Checker checker(read, text);
  if (config::read_configuration_text(read, checker)) checker.look_at_rules();
  return checker.findings();
}

}  // namespace vrox::check
