// A session's way through its module's upstream proxies: what they are asked
// for, and when the relay may begin.
#pragma once

#include <cstddef>
#include <optional>

#include "tcp/session.h"

namespace vrox::tcp {

// Whether the upstream takes the client's bytes: handshakes done, or none due.
[[nodiscard]] bool upstream_is_open(const TcpSession& session);
// Whether a handshake waits to send rather than for an answer.
[[nodiscard]] bool handshake_wants_output(const TcpSession& session);

// Goes on with the handshakes as far as possible; true when the upstream is
// open. Ends the server side when they fail.
[[nodiscard]] bool drive_handshake(TcpSession& session);

// Called with the client's request gathered and not yet enciphered. With
// `httpOverTunnel` the proxy is asked for the host that the request names, so the
// tunnel request is built here, and a CONNECT is marked to be answered instead of
// sent. The result is how many bytes stay plain: the head of such a CONNECT. Empty
// when the request names no host, or memory is short.
[[nodiscard]] std::optional<std::size_t> prepare_tunnel(TcpSession& session);

}  // namespace vrox::tcp
