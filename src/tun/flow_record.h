// What is known of a connection from the TUN device.
#pragma once

#include <cstddef>
#include <cstdint>

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

  ByteRing received;    // not read by the proxy yet
  Bytes arriving;       // likewise: the payload at hand, until the handler has been told of it
  ByteRing unsent;      // written by the proxy, not sent yet
  PayloadSum next_sum;  // of the first bytes of `unsent`, where it is known already

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

}  // namespace vrox::tun
