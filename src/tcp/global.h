// The tcp::Global section: the listener and table of the TCP proxy, and the
// default rule.
#pragma once

#include <cstdint>
#include <string_view>

#include "acl/rule.h"

namespace vrox::tcp {

struct Global : acl::Rule {
  constexpr Global() { keep_alive = 60; }  // the rules' default

  int listen_fd = -1;
  std::uint16_t listen_port = 0;  // host order; 0 without a listener
  std::int32_t max_sessions = 1024;
  bool fast_open = false;          // `tcp_option` TFO
  bool defer_accept = false;       // `tcp_option` TDA
  std::int32_t save_interval = 0;  // `maxData_savePath`: seconds
  std::string_view save_path;      // likewise; empty: none, terminated otherwise
  // The second, of CLOCK_MONOTONIC, in which the processes count what their rules
  // with a `maxSpeed` have used. Null when no rule has one.
  acl::SharedCell* speed_second = nullptr;
};

extern Global global;

}  // namespace vrox::tcp
