// What client bytes all sessions may hold together: heads have no limit of their
// own, and neither has what a request becomes when it is rewritten.
#pragma once

#include "tcp/session.h"

namespace vrox::tcp {

// Brings the budget in line with what the session holds and is about to add.
// False when that is more than there is left. What every session may hold anyway
// does not count, so that nobody is refused for what others hoard.
[[nodiscard]] bool charge(TcpSession& session, std::size_t about_to_add = 0);

// Takes back what was charged for bytes that are gone.
void discharge(TcpSession& session);

}  // namespace vrox::tcp
