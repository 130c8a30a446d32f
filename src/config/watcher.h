// Who listens while the configuration is read. Finding what is wrong and saying so
// are apart: the daemon says it in its own few words and ends, a checker says where
// it is and has the reading go on.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "config/blocks.h"

namespace vrox::config {

enum class Fault : std::uint8_t {
  bad_header,      // no section begins like this; `key` is the header
  brace_attached,  // no fault: the header touches its brace, and reading ends there
  not_closed,      // no line begins with '}'
  no_equals,       // `key` is the whole line
  no_value,
  not_taken,  // the section has no such key, or the key does not take the value
  failed,     // what the key does failed, which has been reported or needs no word
  // Names that no section has: `key` is the rule that uses it, `value` the name.
  included_rule,
  rematch_rule,
  module,
  http_mod,
  tunnel_http_mod,
  service_http_mod,  // of httpUDP and dnsAcl
  // A tcpProxy module whose tunnel request cannot be built.
  tunnel_request,
};

// The texts are views of the configuration, except the names of rules and modules.
struct Problem {
  Fault fault = Fault::failed;
  std::string_view key;
  std::optional<std::string_view> value;
};

class Watcher {
 public:
  virtual void on_section(const Section&) {}
  virtual void on_line(const Line&) {}
  // Whether to go on in spite of it.
  [[nodiscard]] virtual bool on_problem(const Problem& problem) = 0;

 protected:
  Watcher() = default;
  Watcher(const Watcher&) = default;
  Watcher& operator=(const Watcher&) = default;
  ~Watcher() = default;
};

// The daemon's: never goes on, and ends the process itself where a line is wrong.
class Complainer final : public Watcher {
 public:
  [[nodiscard]] bool on_problem(const Problem& problem) override;
};

}  // namespace vrox::config
