// Moving bytes between a session's client and its upstream.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "tcp/session.h"

namespace vrox::tcp {

constexpr std::size_t relay_buffer_size = 20480;
// Client bytes are not read while this many wait for the upstream.
constexpr std::size_t max_c2s_pending = std::size_t{256} * 1024;

// All writes of the relay: within the rule's quota and speed limit, and counted
// against them. The bytes written; 0 when the quota is used up, which ends that
// side; -1 with errno, EAGAIN also when the session was throttled.
[[nodiscard]] ssize_t session_write(TcpSession& session, Sides to, std::string_view bytes);

// The handlers of EPOLLIN and EPOLLOUT. session_flush() also goes on after a
// throttled session was resumed.
void session_on_readable(TcpSession& session);
void session_flush(TcpSession& session);

// Sends client bytes upstream, or queues them behind what already waits there.
// Ends a side on failure.
void forward_to_server(TcpSession& session, std::string_view bytes);

}  // namespace vrox::tcp
