// Datagrams from a tunnel to its client: through the relay's own socket, from the
// address that they name, or back to the service that handed the client over.
#pragma once

#include "httpudp/client.h"

namespace vrox::httpudp {

// Called once, before any thread runs. False when memory is short.
[[nodiscard]] bool replies_prepare();

// Sends a datagram with its relay header in front to the client. What cannot be
// sent is lost, like any other datagram. False when it ends inside its header.
// `datagram` and `client` must stay until flush_replies().
[[nodiscard]] bool reply_to(const UdpClient& client, Bytes datagram);
void flush_replies();

}  // namespace vrox::httpudp
