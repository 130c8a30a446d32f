// A client address and the tunnel that carries its datagrams: one slot of the
// client table. Everything here is the service's thread's own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "httpudp/frame.h"
#include "main/buffer.h"
#include "main/links.h"
#include "tcp/module.h"
#include "tcp/upstream.h"

namespace vrox::httpudp {

// The way by which a client's datagrams come; equal addresses are different
// clients when their datagrams come by different ways.
enum class Origin : std::uint8_t {
  transparent = 0,  // redirected by the firewall: knows nothing of us
  relay = 1,        // of a SOCKS5 client, which writes and reads relay headers
  other = 2,        // handed over by another service
};

// Gives a reply to the service that handed the client's datagrams over: `from` is
// where it came from, both addresses AF_INET or AF_INET6.
using ReplyHook = void (*)(const SocketAddress& from, const SocketAddress& client, Bytes payload);

// A datagram on its way into a tunnel.
struct Datagram {
  SocketAddress client;  // as its socket told; IPv4 may be IPv4-mapped
  SocketAddress local;   // where a SOCKS5 client sent it to; unspecified: not told
  Origin origin = Origin::transparent;
  ReplyHook reply = nullptr;  // of Origin::other
  Bytes frame;                // length, relay header, payload
};

struct UdpClient {
  EndpointKey key{};
  UdpClient* bucket_next = nullptr;
  Links<UdpClient> open;    // of the tunnels, or of the slots to be given back
  Links<UdpClient> unsent;  // has datagrams that were queued in this pass
  Links<UdpClient> unread;  // its tunnel had more to read than one pass takes

  Origin origin = Origin::transparent;
  ReplyHook reply = nullptr;
  SocketAddress address;  // as the socket told that the datagrams came by
  SocketAddress peer;     // normalised
  SocketAddress local;    // where its last datagram was sent to: a SOCKS5 client is
                          // answered from there

  tcp::Destination* destination = nullptr;  // null until chosen
  tcp::Module* socks5 = nullptr;            // with a SOCKS5 upstream
  tcp::Destination* socks5_destination = nullptr;
  SocketAddress target;  // where the tunnel leads
  tcp::Upstream upstream;
  Buffer request;             // what is left to send of the tunnel request
  Buffer outgoing;            // frames, enciphered
  std::size_t sent = 0;       // bytes of `outgoing` that the tunnel has taken
  Buffer received;            // a reply of which not all has come
  std::uint8_t send_key = 0;  // running keys of the tunnel cipher
  std::uint8_t receive_key = 0;
  bool writable = true;  // cleared by EAGAIN only, like `readable`: edges are told once
  bool readable = false;
  std::uint32_t watched = 0;     // the epoll mask
  std::uint32_t idle_ticks = 0;  // sweeps since the tunnel last moved a byte

  [[nodiscard]] bool in_use() const { return upstream.fd >= 0; }
  [[nodiscard]] std::size_t pending() const { return outgoing.size() - sent; }
};

}  // namespace vrox::httpudp
