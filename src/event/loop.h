// Reading the TUN device: packets are sorted by version and protocol and go to
// the TCP engine or to the packet handler. The device is an event source of the
// TCP proxy's loop, level-triggered, because flows and sessions have one owner.
#pragma once

#include <cstdint>

#include "main/address.h"
#include "main/loop.h"
#include "tun/flow.h"
#include "tun/packet.h"

namespace vrox::event {

// A packet that is no TCP. One record serves for all of them: whoever wants to
// keep something of it copies that before the handler returns.
struct TunEvent : tun::TunRecord {
  Address source{};       // an IPv4 address in the first 4 bytes
  Address destination{};  // likewise
  std::uint16_t source_port_be = 0;
  std::uint16_t destination_port_be = 0;
  tun::Bytes payload;  // of a UDP datagram, in the read buffer
  tun::Bytes packet;   // whole, of any other protocol; the rest is the last datagram's

  [[nodiscard]] std::uint8_t version() const { return kind < 0x10 ? tun::ip_v4 : tun::ip_v6; }
};

// Start-up, when tun_fd is a device: allocates the buffers and registers the
// device. False with errno when the kernel refuses. Want of memory, or of the
// non-blocking mode where that is asked for, is an impossible condition.
[[nodiscard]] bool tun_attach(Loop& loop, tun::PacketHandler handler);

// Whether an event of the loop is the device's; false for all without a device.
[[nodiscard]] bool tun_is_source(std::uint64_t event_data);

// The body of the loop for that event: handles up to 64 packets. A device that
// fails is left alone for a while.
void tun_event_loop();

// Once in each pass: frees silent flows, and looks at a failed device again.
void tun_end_pass();
// How long the loop may wait before there is something to do, or a packet is to be
// looked for again; -1: no limit.
[[nodiscard]] int tun_wait_limit_ms();

// Fills the record from a UDP packet. False when the packet is a fragment or
// its lengths do not fit; the record is unchanged then.
[[nodiscard]] bool tun_parse_udp(std::uint8_t kind, TunEvent& event, tun::Bytes packet);

}  // namespace vrox::event
