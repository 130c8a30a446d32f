// The httpMod modules: named lists of directives that rewrite HTTP requests.
//
// Life: filled while the configuration is read, never freed. Captured header
// values and compiled patterns change while serving, so a module belongs to one
// loop: the modules of the list are the TCP loop's. Another loop that rewrites
// requests has its own copies, made before threads start, which are told what
// the TCP loop captures (httpmod/replica.h).
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>

#include "httpmod/pattern.h"
#include "main/buffer.h"
#include "main/list.h"

namespace vrox::httpmod {

enum class HttpModKind : std::uint8_t {
  set_first = 0,
  del_line = 1,
  regrep = 2,
  strrep = 3,
  save_line = 4,
};

// What a `save_line` directive remembers of the requests that pass.
struct SavedValue {
  SavedValue* next = nullptr;
  std::string_view header_name;
  Buffer token;  // "use_value(<header name>)"
  Buffer value;
  bool captured = false;        // until then the token stays in the texts
  std::time_t captured_at = 0;  // of the last capture
  std::int64_t interval_s = 0;  // no capture before it is over
};

// The texts are views of the configuration, which is kept for ever.
struct HttpModDirective {
  HttpModDirective* next = nullptr;
  HttpModKind kind = HttpModKind::set_first;
  std::string_view first_line;   // set_first
  std::string_view header_name;  // del_line
  std::string_view pattern;      // strrep, regrep
  std::string_view replacement;  // strrep, regrep
  CompiledPattern compiled;      // regrep
  SavedValue* saved = nullptr;   // save_line
};

struct Replica;

struct HttpModModule {
  HttpModModule* next = nullptr;
  std::string_view name;
  List<HttpModDirective> directives;  // in file order
  List<SavedValue> saved_values;      // newest first
  List<Replica> replicas;             // the copies that other loops have of this one
  // Counts the captures that changed a value: what was built from the module at
  // another count is out of date.
  std::uint32_t revision = 0;
  bool modify_all_request = false;
};

extern List<HttpModModule> modules;  // newest first

// A module at the front of the list.
HttpModModule& new_module(std::string_view name);

// Null when there is none of that name (compared with case).
[[nodiscard]] HttpModModule* find_module(std::string_view name);

// Applies one line of an httpMod section; false: the line error. The escape
// sequences of `value` have been replaced; it must stay valid for ever.
[[nodiscard]] bool apply_directive(std::string_view key, std::string_view value,
                                   HttpModModule& module);
[[nodiscard]] std::span<const std::string_view> directive_keywords();  // in table order

// A module outside the list with the same directives and saved values (in the
// same order, with what they captured), for another loop. Null when memory is short.
[[nodiscard]] HttpModModule* copy_module(const HttpModModule& module);

// Takes over a captured value and tells the copies, of an old one only when. False
// when memory is short: it was not stored.
[[nodiscard]] bool store_capture(HttpModModule& module, SavedValue& saved, std::string_view value,
                                 std::time_t now);

}  // namespace vrox::httpmod
