// The tunnel of one client: dialling, the handshakes before it is open, and the
// frames that go through it both ways. Knows no event loop.
//
// Where false is returned the tunnel is of no more use, for whatever reason, and the
// caller ends it.
#pragma once

#include <cstdint>

#include "httpudp/client.h"
#include "httpudp/request.h"

namespace vrox::httpudp {

// A tunnel's queue. Beyond the first limit a datagram waits its turn behind what the
// tunnel has not taken; beyond the second one the newest is lost.
constexpr std::size_t send_limit = 65532;
constexpr std::size_t queue_limit = std::size_t{256} << 10;

// Called once, before any thread runs.
[[nodiscard]] TunnelRequest::Result tunnels_prepare(const RequestSource& source);

// Queues the frame for which a tunnel is opened, chooses the upstream and dials.
[[nodiscard]] bool tunnel_open(UdpClient& client, Bytes first);

// Goes on as far as the upstream allows. `events` are what epoll told of it.
[[nodiscard]] bool tunnel_advance(UdpClient& client, std::uint32_t events);

// Takes a frame into the queue; one for which there is no room is dropped.
void tunnel_queue(UdpClient& client, Bytes frame);

// Sends what is queued, as far as the upstream allows.
[[nodiscard]] bool tunnel_send(UdpClient& client);

// What the tunnel waits for, as an epoll mask.
[[nodiscard]] std::uint32_t tunnel_wants(const UdpClient& client);

// Whether it stopped reading early, for the others' sake, and is to be advanced again.
[[nodiscard]] bool tunnel_has_more(const UdpClient& client);

// Gives back what dialling counted.
void tunnel_release(UdpClient& client);

}  // namespace vrox::httpudp
