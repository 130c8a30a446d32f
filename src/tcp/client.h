// The client's side of a session: a socket, or a flow from the TUN device. A flow
// has no place in the epoll set and cannot be spliced; the packet handler tells
// what happens to it, and its descriptor, the device's, is never closed.
#pragma once

#include <sys/types.h>

#include <span>
#include <string_view>

#include "main/address.h"
#include "tcp/session.h"

namespace vrox::tcp {

[[nodiscard]] inline bool client_is_socket(const TcpSession& session) {
  return session.tun_flow == nullptr;
}

// As read(2) and write(2) on a non-blocking socket.
[[nodiscard]] ssize_t client_read(TcpSession& session, std::span<char> buffer);
[[nodiscard]] ssize_t client_write(TcpSession& session, std::string_view bytes);

// Client bytes that are in memory already, and how many of them were passed on:
// without a copy. None for a socket.
[[nodiscard]] std::string_view client_at_hand(const TcpSession& session);
void client_took(TcpSession& session, std::size_t count);

// Our address of the client's connection; false for a flow, which came to none.
[[nodiscard]] bool client_local_address(const TcpSession& session, SocketAddress& local);

// Puts the rule's keep-alive setting into force, where the socket has another.
void client_apply_keep_alive(TcpSession& session);

// At the end of the session, when both of its sides are gone.
void client_release_flow(TcpSession& session);

}  // namespace vrox::tcp
