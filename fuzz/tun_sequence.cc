// Sequences of segments and proxy calls on two flows, four bytes a step. A
// client's byte is told by its sequence number, and ours by the count of bytes
// written: what is read, and what is sent, must go on exactly where it stood.
#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "main/clock.h"
#include "tun_link.h"

namespace {

using namespace vrox;
using tun_link::check;

constexpr std::uint32_t client_isn = 0xffffff00;

std::uint8_t client_byte(std::uint32_t sequence) {
  return static_cast<std::uint8_t>(sequence * 2654435761U >> 24);
}
std::uint8_t own_byte(std::size_t at) { return static_cast<std::uint8_t>(at * 40503U >> 8); }

// What the two ends of a flow know.
struct Peer {
  tun::Route route;
  tun::TunFlow* flow = nullptr;
  std::uint32_t read = 0;    // by the proxy
  std::size_t written = 0;   // likewise
  std::size_t received = 0;  // by the client
  std::uint32_t next = 0;    // the client's acknowledgement number
  bool jumped = false;       // it acknowledged what was never sent
  bool read_in_handler = false;
};
constinit std::array<Peer, 2> peers{};

Peer& peer_of(const tun::TunFlow& flow) { return peers[flow.version() == tun::ip_v4 ? 0 : 1]; }

void read_some(Peer& peer, std::size_t size) {
  std::vector<char> buffer(size);
  const ssize_t count = tun::tun_flow_read(*peer.flow, buffer);
  check(count <= static_cast<ssize_t>(size));
  for (ssize_t i = 0; i < count; ++i, ++peer.read) {
    const auto byte = static_cast<std::uint8_t>(buffer[static_cast<std::size_t>(i)]);
    check(byte == client_byte(client_isn + 1 + peer.read));
  }
}

void write_some(Peer& peer, std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(own_byte(peer.written + i));
  const ssize_t count = tun::tun_flow_write(*peer.flow, text);
  check(count <= static_cast<ssize_t>(size));
  if (count > 0) peer.written += static_cast<std::size_t>(count);
}

void close(Peer& peer) {
  tun::tun_flow_close(*peer.flow);
  peer.flow = nullptr;
}

void handle(tun::TunRecord& record) {
  auto& flow = static_cast<tun::TunFlow&>(record);
  Peer& peer = peer_of(flow);
  switch (flow.kind < 0x10 ? flow.kind : flow.kind >> 4) {
    case tun::syn_received:
      peer.flow = &flow;
      peer.read = peer.next = 0;
      peer.written = peer.received = 0;
      peer.jumped = false;
      return;
    case tun::established:
      if (peer.flow == nullptr) return;
      if (peer.read_in_handler) read_some(peer, 300);
      if ((flow.flags & tun::reset_by_client) != 0) close(peer);
      return;
    default:
      if (peer.flow != nullptr) write_some(peer, 50);
  }
}

// The client's TCP: takes what is due, in order.
void take_answer(tun::Bytes packet) {
  const auto ip = tun::parse_ip(packet);
  if (!ip) return;  // a reset over IPv6
  const auto segment = tun::parse_tcp(*ip);
  check(segment.has_value());
  if ((segment->flags & tun::rst) != 0) return;
  Peer& peer = peers[ip->version == tun::ip_v4 ? 0 : 1];
  if ((segment->flags & tun::syn) != 0) peer.next = 1;
  if (peer.jumped) return;
  if (!segment->payload.empty() || (segment->flags & tun::fin) != 0) {
    check(segment->sequence == 1 + peer.received);
  }
  for (const std::uint8_t byte : segment->payload) check(byte == own_byte(peer.received++));
  peer.next = static_cast<std::uint32_t>(1 + peer.received + (segment->flags & tun::fin));
}

void inject(const Peer& peer, const tun::TcpFields& fields, std::size_t size) {
  std::vector<std::uint8_t> payload(size);
  for (std::size_t i = 0; i < size; ++i) {
    payload[i] = client_byte(fields.sequence + static_cast<std::uint32_t>(i));
  }
  tun::HeaderBuffer buffer;
  const tun::Bytes header = tun::build_tcp(buffer, peer.route, fields, tun::sum_up({payload, {}}));
  std::vector<std::uint8_t> packet(header.begin(), header.end());
  packet.insert(packet.end(), payload.begin(), payload.end());
  tun_link::put(packet);
}

// A segment near the place that is due, or from nowhere.
void send_segment(Peer& peer, std::uint8_t flags, std::uint8_t where, std::uint8_t size) {
  // What it knows of an earlier connection must not be taken for the new one's.
  if (flags == tun::syn) tun_link::pump(take_answer);
  const std::uint32_t due =
      peer.flow != nullptr ? peer.flow->next_expected : client_isn + 1 + peer.read;
  const std::uint32_t sequence =
      flags == tun::syn ? client_isn : due + static_cast<std::uint32_t>(where % 8) * 20 - 80;
  std::uint32_t acknowledgement = peer.next;
  if (where >= 0xf0) acknowledgement += 1000;
  if (where >= 0xe0) acknowledgement -= 5;
  if (static_cast<std::int32_t>(acknowledgement - peer.next) > 0) peer.jumped = true;
  inject(peer,
         {.sequence = sequence,
          .acknowledgement = acknowledgement,
          .flags = flags,
          .window = static_cast<std::uint16_t>(size * 16),
          .mss = {}},
         flags == tun::syn || (where & 8) == 0 ? 0 : size);
  if (flags == tun::syn) tun_link::pump(take_answer);
}

void step(const std::uint8_t* op) {
  constexpr std::array<std::uint8_t, 8> usual{0x02, 0x10, 0x18, 0x11, 0x14, 0x19, 0x10, 0x18};
  Peer& peer = peers[op[0] & 1];
  const std::size_t size = op[3] * std::size_t{4};
  switch (op[0] >> 1 & 7) {
    case 0:
      return send_segment(peer, op[1] & tun::tcp_flags_mask, op[2], op[3]);
    case 4:
      if (peer.flow != nullptr) read_some(peer, size);
      break;
    case 5:
      if (peer.flow != nullptr) write_some(peer, size);
      break;
    case 6:
      if (peer.flow != nullptr && op[3] > 200) close(peer);
      break;
    case 7:
      peer.read_in_handler = !peer.read_in_handler;
      if (op[3] > 250) tun::tun_expire_flows(monotonic_ms() + 301'000);
      break;
    default:
      return send_segment(peer, usual[op[1] & 7], op[2], op[3]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tun_link::open(handle);
  if (size == 0) return 0;
  event::tun_options.tcp_rmax = (data[0] & 1) != 0 ? 500 : 196608;
  event::tun_options.tcp_wmax = (data[0] & 2) != 0 ? 300 : 196608;
  peers = {};
  peers[0].route = {tun::ip_v4, {10, 5, 5, 1}, {192, 0, 2, 7}, htons(40000), htons(443)};
  peers[1].route = {tun::ip_v6, {0xfd, 1}, {0x20, 1}, htons(40000), htons(443)};
  // Steps of the clients are handled together until the proxy does something.
  for (std::size_t at = 1; at + 4 <= size; at += 4) {
    const bool client_acts = (data[at] >> 1 & 7) < 4;
    step(data + at);
    if (!client_acts || (data[at] & 0x10) == 0) tun_link::pump(take_answer);
  }
  for (Peer& peer : peers) {
    peer.read_in_handler = false;
    inject(peer, {.flags = 0x14, .mss = {}}, 0);
  }
  tun_link::pump(take_answer);
  check(tun::tun_flow_count() == 0);
  return 0;
}
