// TCP connections that applications open through the TUN device, ended in user
// space: the engine that answers their packets, and the operations by which the
// TCP proxy uses a flow in place of a client's socket.
//
// A flow lives from a SYN until the engine frees it: on the client's reset, when
// both sides have sent their FIN, or when it is closed, half-open or owes an
// acknowledgement, and is silent for five minutes. The proxy never frees one. Everything here but
// tun_send_udp and tun_unfinished_flows belongs to one thread, the TCP proxy's.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "main/address.h"
#include "main/links.h"
#include "tun/byte_ring.h"
#include "tun/packet.h"

namespace vrox::tcp {
struct TcpSession;
}

namespace vrox::tun {

// What the packet handler is told, by the first byte of a record: for IPv4 the
// code, for IPv6 the code shifted left by four bits.
enum Kind : std::uint8_t {
  syn_received = 1,  // a flow: new, the SYN-ACK is sent
  established = 2,   // a flow: there is something to read, an end or a reset
  writable = 3,      // a flow: room again after a write found none
  udp_datagram = 4,
  other_protocol = 5,
};

[[nodiscard]] constexpr std::uint8_t kind_code(std::uint8_t version, Kind kind) {
  return static_cast<std::uint8_t>(version == ip_v4 ? kind : kind << 4);
}

// The common head of TunFlow and event::TunEvent.
struct TunRecord {
  std::uint8_t kind = 0;
};

using PacketHandler = void (*)(TunRecord& record);

enum FlowFlag : std::uint8_t {
  write_refused = 0x08,  // a write found no room
  reset_by_client = 0x10,
  closed_here = 0x20,
  fin_sent = 0x40,
  fin_received = 0x80,
};
constexpr std::uint8_t ending_flags = 0xf0;

struct TunFlow : TunRecord {        // kind: the state
  std::uint8_t flags = 0;           // FlowFlag
  std::uint16_t client_window = 0;  // 0 from a data segment until it is acknowledged
  std::uint16_t told_window = 0;    // ours, in the last segment that was sent
  Route to_client;                  // version; from the address it connected to; ports
  bool acknowledged = false;        // the client has everything that was sent
  bool fin_announced = false;       // a FIN came on a segment with payload, where it does not
                                    // count: its place, should the client repeat it
  std::uint32_t fin_sequence = 0;
  std::uint32_t next_expected = 0;  // sequence number of the client's next byte
  std::uint32_t next_sent = 0;      // and of ours

  ByteRing received;        // not read by the proxy yet
  Bytes arriving;           // likewise: the payload at hand, until the handler has been told of it
  ByteRing unsent;          // written by the proxy, not sent yet
  PayloadSum next_payload;  // of the first bytes there, where it is known already

  tcp::TcpSession* session = nullptr;  // set and cleared by the packet handler and the close

  TunFlow* next_in_bucket = nullptr;
  Links<TunFlow> fading;     // flows whose silence is limited, the longest silent first
  Links<TunFlow> lingering;  // closed flows with a buffer of what is not sent yet, likewise
  bool unfinished = false;   // closed, and our FIN is not sent
  std::int64_t heard_at_ms = 0;

  [[nodiscard]] std::uint8_t version() const { return to_client.version; }
  [[nodiscard]] std::size_t unread() const { return received.size() + arriving.size(); }

  [[nodiscard]] bool has(unsigned some) const { return (flags & some) != 0; }
  void set(FlowFlag flag) { flags = static_cast<std::uint8_t>(flags | flag); }
  void clear(FlowFlag flag) { flags = static_cast<std::uint8_t>(flags & ~unsigned{flag}); }
  [[nodiscard]] bool is_in(Kind state) const { return kind == kind_code(version(), state); }
  void enter(Kind state) { kind = kind_code(version(), state); }
  [[nodiscard]] bool is_established() const { return is_in(established) || is_in(writable); }
};

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

// The proxy is done with the flow, which may be gone when this returns the next
// time to the loop. Our FIN follows what is still to be sent.
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
// look for its packet again than to sleep until it comes.
[[nodiscard]] bool tun_awaits_answer();

[[nodiscard]] std::size_t tun_flow_count();
// Flows that were closed and still have something to send: bytes, or the FIN. From
// any thread.
[[nodiscard]] std::size_t tun_unfinished_flows();

}  // namespace vrox::tun
