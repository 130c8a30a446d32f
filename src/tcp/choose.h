// From a session's rule to an upstream connection.
#pragma once

#include "tcp/session.h"

namespace vrox::tcp {

// Counts the client under the rule's limit, picks the module and its
// destination, and dials. False on refusal or failure: the caller ends the
// session, which gives back what was counted.
[[nodiscard]] bool choose_upstream(TcpSession& session);

// Dials the session's connect_addr; session_arm() registers it. False, reported as
// "socket()" or "connect()", when that fails.
[[nodiscard]] bool connect_upstream(TcpSession& session);

// Gives back the counts of module, destination and client address.
void release_upstream(TcpSession& session);

}  // namespace vrox::tcp
