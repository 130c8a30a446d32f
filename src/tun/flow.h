// TCP connections that applications open through the TUN device, ended in user
// space: the engine that answers their packets, and the operations by which the
// TCP proxy uses a flow in place of a client's socket.
//
// A flow lives from a SYN until the engine frees it: on the client's reset, when
// both sides have sent their FIN, or when it is closed, half-open or owes an
// acknowledgement, and is silent for five minutes. The proxy never frees one.
// Everything here but tun_send_udp and tun_unfinished_flows belongs to one thread,
// the TCP proxy's.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "tun/flow_record.h"
#include "tun/packet.h"

namespace vrox::tun {

using PacketHandler = void (*)(TunRecord& record);

// ---- for the proxy --------------------------------------------------------------

// As read(2): a count, 0 at the end of the stream, or -1 with errno: EAGAIN when
// nothing waits, EPIPE after a reset, EINVAL before the handshake is complete.
[[nodiscard]] ssize_t tun_flow_read(TunFlow& flow, std::span<char> buffer);

// The payload at hand, where it lies in the packet, if it comes next: a reader who
// only passes bytes on takes them from there. Valid until the handler returns.
[[nodiscard]] Bytes tun_flow_at_hand(const TunFlow& flow);
// As much of it as was passed on.
void tun_flow_took(TunFlow& flow, std::size_t count);

// What tun_flow_read would say, without reading: a count, 0 or -1 with errno.
[[nodiscard]] ssize_t tun_flow_peek(const TunFlow& flow);

// As write(2) on a non-blocking socket: sends at once when the client has
// acknowledged what went before, and keeps the rest up to `tcp_WMax`. -1 with
// EAGAIN when there is no room or the handshake is not complete; the handler is
// told when there is.
[[nodiscard]] ssize_t tun_flow_write(TunFlow& flow, std::string_view bytes);

// The proxy is done with the flow, which may be gone after the next pass of the loop.
// Our FIN follows what is still to be sent.
void tun_flow_close(TunFlow& flow);

// Writes one UDP packet to the device, from any thread. Addresses are 4 or 16
// bytes, as `version` is 4 or 6. What no packet can hold is dropped.
void tun_send_udp(std::uint8_t version, Bytes source, std::uint16_t source_port_be,
                  Bytes destination, std::uint16_t destination_port_be, Bytes payload);

// ---- for the event loop ---------------------------------------------------------

// Start-up: the handler that is told of flows.
void tun_open_flows(PacketHandler handler);

// A flow's payload waits as `arriving` until tun_deliver() tells the handler, so that
// what comes in several segments goes on in one piece. The acknowledgements do not
// wait. Null: none does.
[[nodiscard]] const TunFlow* tun_gathering();
void tun_deliver();
constexpr std::size_t max_gathered = 131072;
// Whether the segment's payload lies in memory right behind what waits, and belongs
// there. Before any other packet is handled, what waits must be delivered.
[[nodiscard]] bool tun_continues(const IpPacket& packet, const TcpSegment& segment);

// One TCP packet from the device. `packet_length` is what was read.
void tun_handle_tcp(const IpPacket& packet, const TcpSegment& segment, std::size_t packet_length);

// Frees the flows that have been silent for too long.
void tun_expire_flows(std::int64_t now_ms);
// When tun_expire_flows() will next have something to do; empty: not for now.
[[nodiscard]] std::optional<std::int64_t> tun_next_expiry_ms();

// Whether a client is about to acknowledge a large segment, so that it is quicker to
// look for its packet again than to sleep until it comes. Gives up after a moment of
// such answers.
[[nodiscard]] bool tun_looks_again();

[[nodiscard]] std::size_t tun_flow_count();
// Flows that were closed and still have something to send: bytes, or the FIN. From
// any thread.
[[nodiscard]] std::size_t tun_unfinished_flows();

}  // namespace vrox::tun
