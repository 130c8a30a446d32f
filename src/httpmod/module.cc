#include "httpmod/module.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include "config/key_table.h"
#include "httpmod/replica.h"
#include "main/helpers.h"

namespace vrox::httpmod {

namespace {

constexpr std::int64_t seconds_per_minute = 60;

// The two sides of a value such as: User-Agent -> 5
struct Sides {
  std::string_view left;
  std::string_view right;
};

// Empty when there is no arrow or nothing but blanks before it.
std::optional<Sides> split_at_arrow(std::string_view value) {
  const std::size_t arrow = value.find("->");
  if (arrow == std::string_view::npos) return std::nullopt;
  const std::size_t last = value.substr(0, arrow).find_last_not_of(' ');
  if (last == std::string_view::npos) return std::nullopt;
  Sides sides{value.substr(0, last + 1), value.substr(arrow + 2)};
  if (sides.left.ends_with('"')) sides.left.remove_suffix(1);
  sides.right.remove_prefix(std::min(sides.right.find_first_not_of(' '), sides.right.size()));
  if (sides.right.starts_with('"')) sides.right.remove_prefix(1);
  return sides;
}

// Null when memory is short, which is reported.
SavedValue* new_saved_value(std::string_view header_name, std::int64_t interval_s) {
  std::unique_ptr<SavedValue> saved(new SavedValue);
  if (!saved->token.append("use_value(") || !saved->token.append(header_name) ||
      !saved->token.append(")")) {
    std::perror("malloc()");
    return nullptr;
  }
  saved->header_name = header_name;
  saved->interval_s = interval_s;
  return saved.release();
}

// The kind hangs on single letters of the key, with case: a key in capitals,
// though known, is taken for a regrep. Configurations rely on it.
HttpModKind kind_of(std::string_view key) {
  if (key[1] == 'a') return HttpModKind::save_line;
  return key[0] == 's' ? HttpModKind::strrep : HttpModKind::regrep;
}

bool add_set_first(std::string_view, std::string_view value, HttpModModule& module) {
  auto* directive = new HttpModDirective;
  directive->kind = HttpModKind::set_first;
  directive->first_line = value;
  module.directives.push_back(directive);
  return true;
}

bool add_del_line(std::string_view, std::string_view value, HttpModModule& module) {
  auto* directive = new HttpModDirective;
  directive->kind = HttpModKind::del_line;
  directive->header_name = value;
  module.directives.push_back(directive);
  return true;
}

bool add_arrow_directive(std::string_view key, std::string_view value, HttpModModule& module) {
  const auto sides = split_at_arrow(value);
  if (!sides) return false;
  std::unique_ptr<HttpModDirective> directive(new HttpModDirective);
  directive->kind = kind_of(key);
  if (directive->kind == HttpModKind::save_line) {
    directive->saved = new_saved_value(sides->left, seconds_per_minute * to_number(sides->right));
    if (directive->saved == nullptr) return false;
    module.saved_values.push_front(directive->saved);
  } else {
    directive->pattern = sides->left;
    directive->replacement = sides->right;
  }
  module.directives.push_back(directive.release());
  return true;
}

bool set_modify_all(std::string_view, std::string_view value, HttpModModule& module) {
  if (!equals_ignoring_case(value, "on")) return false;
  module.modify_all_request = true;
  return true;
}

// Compared without case and on the keyword's own length.
struct Key {
  std::string_view keyword;
  bool (*apply)(std::string_view key, std::string_view value, HttpModModule& module);
};
constexpr std::array keys{
    Key{"modify_all_request", set_modify_all},
    Key{"set_first", add_set_first},
    Key{"del_line", add_del_line},
    Key{"strrep", add_arrow_directive},
    Key{"regrep", add_arrow_directive},
    Key{"save_line", add_arrow_directive},
};

// The saved value of `copy` at the place where `saved` stands in `module`.
SavedValue* same_place(const HttpModModule& module, const SavedValue* saved,
                       const HttpModModule& copy) {
  SavedValue* at = copy.saved_values.head;
  for (const SavedValue& other : module.saved_values) {
    if (&other == saved) return at;
    at = at->next;
  }
  return nullptr;
}

}  // namespace

constinit List<HttpModModule> modules;

HttpModModule& new_module(std::string_view name) {
  auto* module = new HttpModModule;
  module->name = name;
  modules.push_front(module);
  return *module;
}

HttpModModule* find_module(std::string_view name) {
  for (HttpModModule& module : modules) {
    if (module.name == name) return &module;
  }
  return nullptr;
}

std::span<const std::string_view> directive_keywords() { return config::keywords_of<keys>(); }

bool apply_directive(std::string_view key, std::string_view value, HttpModModule& module) {
  for (const Key& known : keys) {
    if (starts_with_ignoring_case(key, known.keyword)) return known.apply(key, value, module);
  }
  return false;
}

HttpModModule* copy_module(const HttpModModule& module) {
  auto* copy = new HttpModModule;
  copy->name = module.name;
  copy->modify_all_request = module.modify_all_request;
  for (const SavedValue& saved : module.saved_values) {
    SavedValue* saved_copy = new_saved_value(saved.header_name, saved.interval_s);
    if (saved_copy == nullptr || !saved_copy->value.assign(saved.value.view())) return nullptr;
    saved_copy->captured = saved.captured;
    saved_copy->captured_at = saved.captured_at;
    copy->saved_values.push_back(saved_copy);
  }
  for (const HttpModDirective& directive : module.directives) {
    auto* other = new HttpModDirective;
    other->kind = directive.kind;
    other->first_line = directive.first_line;
    other->header_name = directive.header_name;
    other->pattern = directive.pattern;
    other->replacement = directive.replacement;
    other->saved = same_place(module, directive.saved, *copy);
    copy->directives.push_back(other);
  }
  return copy;
}

bool store_capture(HttpModModule& module, SavedValue& saved, std::string_view value,
                   std::time_t now) {
  const bool is_new = !saved.captured || saved.value.view() != value;
  Buffer stored;  // the old value stays when memory is short
  if (is_new && !stored.assign(value)) return false;
  saved.captured_at = now;
  if (is_new) {
    saved.value = std::move(stored);
    saved.captured = true;
    ++module.revision;
  }
  // An old value too: until its interval is over a template's own header is none for
  // the copies either.
  if (is_new || saved.interval_s > 0) tell_replicas(module, saved);
  return true;
}

}  // namespace vrox::httpmod
