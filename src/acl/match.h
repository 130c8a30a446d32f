// Which rule governs a connection: at accept time, when only addresses and
// ports are known, and when its first request data have been gathered.
#pragma once

#include <cstdint>
#include <string_view>

#include "acl/rule.h"
#include "main/address.h"

namespace vrox::acl {

// What the rules look at.
struct Subject {
  Address client{};            // uniform form
  Address destination{};       // uniform form of the original destination
  std::uint16_t port = 0;      // of the original destination, host order
  bool has_upstream = false;   // rules with `no_auto_match` are skipped without one
  std::uint32_t method = 0;    // code of the request; request-time only
  std::string_view request{};  // the gathered bytes; request-time only
};

constexpr int no_limit = -1;

// The first rule of the list that matches, null when none does. A `limit` of 1
// tries only the first.
[[nodiscard]] Rule* match_at_connect(const Subject& subject, Rule* list, int limit = no_limit);

// Likewise with all criteria; tcp::Global when none matches.
[[nodiscard]] Rule* match_on_request(const Subject& subject, Rule* list, int limit = no_limit);

// The first rule of the rule's `reMatch` list that matches by itself, or null.
[[nodiscard]] Rule* rematch(const Subject& subject, const Rule& rule);

// The server name that a TLS client sends, empty when none is found. For data
// whose second and third byte are 3 and 1, the record version of a ClientHello.
[[nodiscard]] std::string_view tls_server_name(std::string_view record);

// Whether `data` begins a ClientHello record of which more is to come.
[[nodiscard]] bool is_incomplete_client_hello(std::string_view data);

}  // namespace vrox::acl
