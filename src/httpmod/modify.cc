#include "httpmod/modify.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>

#include "httpmod/limit.h"
#include "httpmod/request.h"
#include "main/helpers.h"

namespace vrox::httpmod {

namespace {

// How much longer the text of a request may make a pattern. The C library's
// compiler recurses over the pattern, so nobody from outside may choose its depth.
constexpr std::size_t max_pattern_growth = 1024;

// What one request in the buffer owns while it is rewritten.
struct Work {
  const RequestView& view;
  HttpModModule& module;
  RequestParts parts;
  Buffer head;
  Buffer host;       // when it is made here: from the address, or enciphered
  Buffer host_port;  // likewise
  Buffer pattern;    // the directive's texts, expanded
  Buffer replacement;

  [[nodiscard]] bool expand(std::string_view text, Buffer& expanded) const {
    return expanded.assign(text) && expand_placeholders(expanded, parts, module.saved_values);
  }
};

// A Host that names another port than the connection's keeps it in front of the
// connection's own, as in "a.b:81:80"; not so on the listening port, where the
// destination says nothing.
bool needs_own_port(std::string_view host, const RequestView& view) {
  const int port = view.destination.port();
  const std::size_t colon = host.find(':');
  return port != 0 && port != view.listen_port && colon != std::string_view::npos &&
         to_number(host.substr(colon + 1)) != port;
}

bool append_port(std::uint16_t port, Buffer& text) {
  std::array<char, 6> digits{':'};
  const auto end = std::to_chars(digits.data() + 1, digits.data() + digits.size(), port).ptr;
  return text.append({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

bool set_host(std::string_view head, bool encipher, TunnelKey key, Work& work) {
  RequestParts& parts = work.parts;
  if (const auto host = find_request_host(head)) {
    parts.host = parts.host_port = *host;
    if (needs_own_port(*host, work.view)) {
      if (!work.host_port.assign(*host)) return false;
      if (!append_port(work.view.destination.port(), work.host_port)) return false;
      parts.host_port = work.host_port.view();
    }
  } else {
    if (!format_address(work.view.destination, work.host_port)) return false;
    parts.host = parts.host_port = work.host_port.view();
  }
  if (!encipher) return true;
  // Only [H] is enciphered; [H_P] stays plain.
  if (!encode_host_base64(parts.host, key, work.view.running_key, work.host)) return false;
  parts.host = work.host.view();
  return true;
}

std::string_view path_of(const RequestLine& line) {
  if (!line.url.starts_with('/') && line.url.find("//") != std::string_view::npos) {
    return path_behind_authority(line.url);
  }
  return line.method.starts_with("CON") ? "/" : line.url;
}

bool set_parts(std::string_view head, std::uint32_t method, TunnelKey key, Work& work) {
  const auto line = parse_request_line(head);
  if (!line) return false;
  work.parts.method = line->method;
  work.parts.url = line->url;
  work.parts.version = line->version;
  work.parts.path = path_of(*line);
  return set_host(head, key.on() && method == method_connect, key, work);
}

bool set_first(const HttpModDirective& directive, Work& work) {
  if (!work.expand(directive.first_line, work.replacement)) return false;
  // The text brings its own line end.
  const Line old = line_at(work.head.view(), 0);
  return work.head.splice(0, old.next, work.replacement.view());
}

// Everything but the named lines, in one pass over the head; the request line
// always stays. A last line without line feed goes too.
bool delete_lines(const HttpModDirective& directive, Work& work) {
  const std::span<char> bytes = work.head.span();
  std::size_t kept = line_at(work.head.view(), 0).next;
  for (std::size_t at = kept; at < bytes.size();) {
    const Line line = line_at(work.head.view(), at);
    if (!is_header(line.in(work.head.view()), directive.header_name)) {
      if (kept != at) std::memmove(bytes.data() + kept, bytes.data() + at, line.next - at);
      kept += line.next - at;
    }
    at = line.next;
  }
  work.head.truncate(kept);
  return true;
}

// One byte before the line feed ends the value: the carriage return.
std::string_view header_value(const Line& line, std::string_view name, std::string_view head) {
  const bool has_line_feed = line.next != line.end;
  std::string_view value = line.in(head);
  value.remove_prefix(name.size() + 1);
  if (has_line_feed && !value.empty()) value.remove_suffix(1);
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  return value;
}

// The last such line counts. What cannot be stored does not fail the request.
bool capture_line(const HttpModDirective& directive, Work& work) {
  SavedValue& saved = *directive.saved;
  const std::time_t now = std::time(nullptr);
  if (saved.captured_at + saved.interval_s > now) return true;
  const std::string_view head = work.head.view();
  std::optional<std::string_view> value;
  for (Line line = line_at(head, 0); line.next < head.size();) {
    line = line_at(head, line.next);
    if (is_header(line.in(head), saved.header_name)) {
      value = header_value(line, saved.header_name, head);
    }
  }
  if (value) (void)store_capture(work.module, saved, *value, now);
  return true;
}

bool replace_text(const HttpModDirective& directive, Work& work) {
  return work.expand(directive.pattern, work.pattern) &&
         work.expand(directive.replacement, work.replacement) &&
         replace_within_limit(work.head, work.pattern.view(), work.replacement.view());
}

// The C library's compiler doubles what stands before each further "+".
constexpr std::size_t max_repetitions = 2;

// How many repetition operators stand side by side at most.
std::size_t longest_repetition(std::string_view text) {
  std::size_t longest = 0;
  std::size_t run = 0;
  for (const char c : text) {
    run = c == '+' || c == '*' || c == '?' ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  return longest;
}

// Request text in a pattern may be as hostile as its sender: nesting and
// repetitions decide what compiling costs, back-references what matching does.
bool is_safe_pattern(std::string_view written, std::string_view expanded) {
  if (expanded == written) return true;
  const auto count = [](std::string_view text) {
    return std::count_if(text.begin(), text.end(),
                         [](char c) { return c == '(' || c == '{' || c == '\\'; });
  };
  return expanded.size() <= written.size() + max_pattern_growth &&
         count(expanded) <= count(written) &&
         longest_repetition(expanded) <= std::max(longest_repetition(written), max_repetitions);
}

bool replace_expression(HttpModDirective& directive, Work& work) {
  if (!work.expand(directive.pattern, work.pattern)) return false;
  const std::string_view pattern = work.pattern.view();
  if (pattern.empty() || !is_safe_pattern(directive.pattern, pattern)) return true;
  const regex_t* regex = directive.compiled.compile(pattern);
  if (regex == nullptr) return true;
  return work.expand(directive.replacement, work.replacement) &&
         replace_matches(work.head, *regex, work.replacement.view());
}

bool apply(HttpModDirective& directive, Work& work) {
  switch (directive.kind) {
    case HttpModKind::set_first:
      return set_first(directive, work);
    case HttpModKind::del_line:
      return delete_lines(directive, work);
    case HttpModKind::regrep:
      return replace_expression(directive, work);
    case HttpModKind::strrep:
      return replace_text(directive, work);
    case HttpModKind::save_line:
      return capture_line(directive, work);
  }
  return false;
}

bool rewrite_head(std::string_view head, std::uint32_t method, TunnelKey key, Work& work) {
  if (!set_parts(head, method, key, work) || !work.head.assign(head)) return false;
  for (HttpModDirective& directive : work.module.directives) {
    if (!apply(directive, work)) return false;
  }
  return true;
}

}  // namespace

bool modify_request(const RequestView& view, HttpModModule& module, TunnelKey key) {
  Work work{view, module, {}, {}, {}, {}, {}, {}};
  Buffer result;
  std::string_view rest = view.request.view();
  std::uint32_t method = view.method;
  bool again = true;
  while (again) {
    const std::size_t head_end = find_head_end(rest).value_or(rest.size());
    if (!rewrite_head(rest.substr(0, head_end), method, key, work)) return false;
    if (!append_within_limit(result, work.head.view(), view.request.size())) return false;
    rest.remove_prefix(head_end);
    // What follows a head and begins like a request is one of its own.
    again = module.modify_all_request && !rest.empty();
    if (again) method = method_code(rest);
    again = again && method != not_http;
  }
  if (!append_within_limit(result, rest, view.request.size())) return false;
  view.request = std::move(result);
  return true;
}

bool modify_request_text(Buffer& request, HttpModModule& module) {
  if (request.empty()) return false;
  const SocketAddress nowhere;
  return modify_request({request, 0, nowhere, 0, 0}, module, TunnelKey{}) && !request.empty();
}

bool put_saved_values(Buffer& text, const List<SavedValue>& saved_values) {
  for (const SavedValue& saved : saved_values) {
    if (!saved.captured) continue;
    if (!replace_within_limit(text, saved.token.view(), saved.value.view())) return false;
  }
  return true;
}

bool expand_placeholders(Buffer& text, const RequestParts& parts,
                         const List<SavedValue>& saved_values) {
  if (!put_saved_values(text, saved_values)) return false;
  const std::array<std::pair<std::string_view, std::string_view>, 6> steps{{
      {"[M]", parts.method},
      {"[U]", parts.path},
      {"[url]", parts.url},
      {"[V]", parts.version},
      {"[H]", parts.host},
      {"[H_P]", parts.host_port},
  }};
  return std::all_of(steps.begin(), steps.end(), [&text](const auto& step) {
    return replace_within_limit(text, step.first, step.second);
  });
}

}  // namespace vrox::httpmod
