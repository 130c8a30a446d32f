// UDP over HTTP: datagrams of the two listeners and of other services go to a far
// end inside TCP connections that an HTTP request opens, one for each client.
//
// One thread owns the clients, their tunnels and both listeners. Datagrams of a new
// client for which no slot is free wait, while those of others are still served.
#pragma once

#include <cstddef>

#include "httpudp/client.h"

namespace vrox::httpudp {

// Builds the tunnel request, the client table and the event set; called once in each
// process, before any thread runs. Ends the process with status 1 when that fails.
void httpudp_init();

// The body of the service's thread.
[[noreturn]] void httpudp_thread();

// For other services, on their threads: takes a datagram of `client` for `destination`
// (both AF_INET or AF_INET6), and calls `reply` on the service's own thread with every
// one that comes back. False when it is dropped: there is no service, no room, or the
// datagram is too long.
[[nodiscard]] bool httpudp_submit(const SocketAddress& client, const SocketAddress& destination,
                                  Bytes payload, ReplyHook reply);

// Ask the service's thread, from any thread or signal handler: to count idle tunnels
// and end those that reached their limit; to take what already waits and close the
// listeners.
void httpudp_sweep();
void httpudp_drain();
[[nodiscard]] bool httpudp_drained();  // the listeners are closed
[[nodiscard]] std::size_t httpudp_open_tunnels();

// The service's thread's own.

// Appends a datagram to the tunnel of its client. False when that has none: then the
// datagram starts one.
[[nodiscard]] bool httpudp_queue(const Datagram& datagram);

// Opens the tunnel of a slot that was just filled, with its first datagram's frame.
// Ends it when that fails.
void httpudp_connect(UdpClient& client, Bytes first);

// Closes the tunnel and frees the slot.
void httpudp_close(UdpClient& client);

}  // namespace vrox::httpudp
