// The requests that a rule's lookups begin with: templates are built once, and
// again when a header value was captured that their httpMod module puts in.
// The DNS loop's own.
#pragma once

#include <cstdint>
#include <string_view>

#include "dns/rule.h"
#include "main/buffer.h"

namespace vrox::dns {

// Builds the templates that the rule needs. False when its module cannot be
// applied or memory is short; the rule keeps what it had.
[[nodiscard]] bool build_templates(DnsRule& rule);

// Builds those anew whose module has changed since. False as above.
[[nodiscard]] bool refresh_templates(DnsRule& rule);

// The HTTP request that looks `name` up. False when memory is short, or when the
// name has bytes that would end the request's target.
[[nodiscard]] bool make_lookup_request(const DnsRule& rule, std::string_view name, Buffer& request);

// The request that opens a tunnel, in which an enciphered host also tells the far
// end the running key. False when memory is short.
[[nodiscard]] bool make_tunnel_request(const DnsRule& rule, std::uint8_t running_key,
                                       Buffer& request);

}  // namespace vrox::dns
