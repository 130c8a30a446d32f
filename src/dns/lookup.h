// The exchange with an upstream server: over TCP, directly or through the
// proxies of the query's rule, as a DNS message or as an HTTP request.
#pragma once

#include <cstdint>
#include <span>

#include "dns/query.h"
#include "dns/question.h"

namespace vrox::dns {

struct LookupResult {
  enum class State : std::uint8_t {
    waiting,    // for the upstream
    unsettled,  // likewise, but what has come may be all there is: see lookup_settle
    replied,    // `reply` is for the client, and the query is over
    failed,     // the query is over without a reply
  };
  State state = State::waiting;
  std::span<const std::uint8_t> reply{};  // until the next call
  bool storable = false;                  // in the cache
};

// Builds the requests of a query whose rule is chosen, and dials. False when that
// fails, or when the rule cannot look up such a query.
[[nodiscard]] bool lookup_start(DnsQuery& query, const Question& question);

// Goes on as far as the upstream allows. `events` are what epoll told of it.
[[nodiscard]] LookupResult lookup_advance(DnsQuery& query, std::uint32_t events);

// Takes what has come for the whole answer, though nothing says that it is.
[[nodiscard]] LookupResult lookup_settle(DnsQuery& query);

// Closes the connection and gives back what the lookup counted.
void lookup_end(DnsQuery& query);

}  // namespace vrox::dns
