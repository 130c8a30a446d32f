// The SOCKS5 server: takes connections through the handshake and hands them over
// to the TCP proxy. Its thread owns the table, the epoll set and the socket
// towards the DNS server.
#pragma once

#include <cstddef>

#include "main/address.h"
#include "socks5/handshake.h"

namespace vrox::socks5 {

// Start-up, in every process and before any service thread runs: listener
// options, table, epoll set, the process's own DNS socket. Ends the process with
// status 1 when the kernel or memory refuses. Nothing without a listener.
void socks5_prepare();

// The body of the SOCKS5 thread.
[[noreturn]] void socks5_server_loop();

// Makes the connection a session of the TCP proxy, with the place that its
// client wants as the original destination, and frees the slot. False when the
// TCP table is full; nothing has changed then.
[[nodiscard]] bool socks5_join_session(Socks5Conn& conn, const SocketAddress& original_dst);

// From any thread or signal handler; nothing without the service. To count idle
// handshakes and end those that reached `handshake_timeout`; to accept what
// already waits and close the listener.
void socks5_sweep();
void socks5_drain();

// Whether the listener is closed, or there was none.
[[nodiscard]] bool socks5_drained();

// Handshakes that are not finished; UDP associations are. One that is handed
// over leaves this count after it has taken its slot in the TCP proxy's table,
// so whoever waits for both to be idle looks here first.
[[nodiscard]] std::size_t socks5_open_handshakes();

}  // namespace vrox::socks5
