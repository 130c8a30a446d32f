// Client data until they are a request: gathering heads, choosing the rule,
// rewriting and enciphering.
#pragma once

#include <cstddef>

#include "tcp/session.h"

namespace vrox::tcp {

// Reads once from the client and handles what is complete. Clears the mark of its
// input when nothing is left to read. The result is the number of bytes read.
std::size_t read_client_request(TcpSession& session);

// Whether the client's next bytes can go to the upstream unseen: nothing is being
// gathered, and neither a rule nor a module wants to look at them or change them.
[[nodiscard]] bool client_bytes_are_plain(const TcpSession& session);

}  // namespace vrox::tcp
