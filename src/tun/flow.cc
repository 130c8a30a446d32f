// A TCP engine for one lossless link.
//
// The device is a queue in the kernel: what is written to it has arrived when the
// call returns, and in order. So nothing is ever sent twice here, there is no
// timer, no congestion window and no reassembly. The client's own TCP does the
// rest: it repeats what was not acknowledged, and paces itself by our window.
//
//   SYN -> syn_received -> (an ACK of the SYN-ACK) -> established -> freed
//
// How the connection ends stands in the flags, not in the state: a FIN of either
// side, a close by the proxy, a reset. The flow is freed on a reset, on the
// client's FIN behind ours, and on the client's ACK of our FIN behind its own.
//
// Sending. One data segment is outstanding at a time: sending it sets the
// client's window to 0, and only a segment that acknowledges all of it sets the
// window again. `next_sent` counts what was sent, so data of the client that
// crosses ours on the way, and carries an older acknowledgement, moves nothing
// back. Window scaling is never offered; a segment is up to 64 KiB, whatever
// the MTU of the device, which does not split what is written to it.
//
// Receiving. Only the byte that is due is taken, and only as far as there is
// room; only that is acknowledged. Anything else, be it old, ahead of a gap or
// too much, is answered with an ACK that says what is due. A client that was told
// of no room is told when there is some again: it may have nothing to send that
// would ask.
//
// Which flag combinations are looked at is fixed: with payload all of them, and
// without it only ACK, FIN-ACK and RST-ACK exactly. A FIN on a segment with payload
// does not count. The client repeats it, as a FIN-PSH-ACK if the segment was
// pushed, which counts at the place that was announced and nowhere else.
//
// Memory. A flow is a small record. Payload goes from the packet to the proxy,
// and from the proxy to a packet, without a stop if it can; a buffer is borrowed
// only for what has to wait, and goes back when it is empty. Flows that are half-open,
// closed or owe an acknowledgement have a limit, beyond which the longest silent one
// goes. Closed ones have a much lower one while they hold a buffer: they belong to no
// session any more, whose number is limited by itself.
//
// The handler may call back into read, write and close, but it never frees a
// flow, so a flow is there until the function that handles its packet ends.
#include "tun/flow.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tun/flow_table.h"
#include "tun/sending.h"

namespace vrox::tun {

namespace {

constexpr std::int64_t silence_limit_ms = std::int64_t{5} * 60 * 1000;

constinit PacketHandler handler = nullptr;

// Whether sequence number `a` is at `b` or behind it, on the circle of 2^32.
bool at_or_after(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) >= 0; }

// ---- ends -----------------------------------------------------------------------

// The last the handler hears of the flow.
void reset_flow(TunFlow& flow) {
  flow.enter(established);  // not "new", should it be half-open
  flow.flags = reset_by_client;
  handler(flow);
  free_flow(flow);
}

// Tells a client that it will not get the rest of what was sent to it.
void give_up(TunFlow& flow) {
  if (!flow.unsent.empty()) send_reset(flow);
  reset_flow(flow);
}

// Never the flow at hand, which was heard of last.
void limit_fading() {
  if (TunFlow* flow = surplus_fading_flow()) give_up(*flow);
}

// No session belongs to these, so this may be done while another one ends.
void limit_lingering() {
  if (TunFlow* flow = surplus_lingering_flow()) give_up(*flow);
}

// ---- receiving ------------------------------------------------------------------

void tell_writable(TunFlow& flow) {
  if (!flow.has(write_refused) || flow.unsent.size() >= send_limit()) return;
  flow.clear(write_refused);
  flow.enter(writable);
  handler(flow);
  flow.enter(established);
}

// The client has acknowledged everything: what waited for that goes on.
void go_on_sending(TunFlow& flow) {
  if (flow.has(fin_sent)) return;
  std::size_t sent = 0;
  if (!flow.unsent.empty()) {
    sent = send_waiting(flow);
  } else if (flow.has(closed_here)) {
    send_fin(flow);
  }
  tell_writable(flow);
  // The next segment will be as large, and the client is busy with this one.
  if (sent >= large_segment && flow.unsent.size() >= sent) {
    flow.next_sum = sum_up(flow.unsent.front(sent));
  }
}

// Takes over what the segment acknowledges, and the window, if nothing is
// outstanding behind it.
bool take_acknowledgement(TunFlow& flow, const TcpSegment& segment) {
  if ((segment.flags & TcpFlag::ack) == 0) return false;
  if (!at_or_after(segment.acknowledgement, flow.next_sent)) return false;
  settle(flow, segment);
  // Both versions go on to what waits for the handshake, a FIN or a refused write:
  // a client that has nothing to say itself would send no other acknowledgement.
  if (flow.is_in(syn_received)) flow.enter(established);
  if (!flow.has(closed_here)) stop_fading(flow);
  return true;
}

// The part of a payload that begins with the byte that is due.
Bytes due_part(const TunFlow& flow, const TcpSegment& segment) {
  const std::uint32_t known = flow.next_expected - segment.sequence;
  return known < segment.payload.size() ? segment.payload.subspan(known) : Bytes{};
}

void keep_arriving(TunFlow& flow) {
  if (!flow.arriving.empty()) {
    lend_receive_buffer(flow);
    flow.received.append(flow.arriving);
  }
  flow.arriving = {};
}

// ---- payload at hand ------------------------------------------------------------

constinit TunFlow* gathering = nullptr;  // whose payload waits to be told of

bool waits_for_acknowledgement(const TunFlow& flow) {
  return !flow.unsent.empty() || flow.has(closed_here | write_refused);
}

// Whether `count` more bytes may join what waits: they are told the same window
// as if it had been read.
bool may_join(const TunFlow& flow, std::size_t count) {
  return flow.arriving.size() + count <= max_gathered &&
         flow.unread() + count + max_window <= receive_limit() && !waits_for_acknowledgement(flow);
}

void receive_payload(TunFlow& flow, const TcpSegment& segment) {
  const bool acknowledges = take_acknowledgement(flow, segment);
  if (flow.is_in(syn_received)) return send_ack(flow);
  Bytes due = due_part(flow, segment);
  if (!flow.has(ending_flags)) {
    due =
        due.first(std::min(due.size(), receive_limit() - std::min(receive_limit(), flow.unread())));
    // What waits lies right before it in memory.
    const std::size_t waiting = gathering == &flow ? flow.arriving.size() : 0;
    flow.arriving = {due.data() - waiting, waiting + due.size()};
  }
  // After a close nobody wants it, but the client is to come to its end.
  if (!flow.has(fin_received)) flow.next_expected += static_cast<std::uint32_t>(due.size());
  if ((segment.flags & TcpFlag::fin) != 0) {
    flow.fin_announced = true;
    flow.fin_sequence = segment.sequence + static_cast<std::uint32_t>(segment.payload.size());
  }
  send_ack(flow);
  if (!flow.arriving.empty()) gathering = &flow;
  if (!may_join(flow, due.size())) tun_deliver();
  if (acknowledges) go_on_sending(flow);
}

void receive_fin(TunFlow& flow, const TcpSegment& segment) {
  const bool acknowledges = take_acknowledgement(flow, segment);
  if (flow.is_in(syn_received) || flow.has(fin_received) ||
      segment.sequence != flow.next_expected) {
    return send_ack(flow);
  }
  flow.set(fin_received);
  ++flow.next_expected;
  send_ack(flow);
  if (flow.has(fin_sent)) return free_flow(flow);
  handler(flow);
  if (acknowledges) go_on_sending(flow);
}

void receive_ack(TunFlow& flow, const TcpSegment& segment) {
  // A keep-alive or a window probe: it asks for an answer.
  if (segment.sequence != flow.next_expected) send_ack(flow);
  if (!take_acknowledgement(flow, segment)) return;
  if (!flow.has(fin_sent)) return go_on_sending(flow);
  if (!flow.has(fin_received)) return;
  std::puts("del");
  free_flow(flow);
}

bool repeats_announced_fin(const TunFlow& flow, const TcpSegment& segment) {
  return segment.flags == (TcpFlag::fin | TcpFlag::psh | TcpFlag::ack) && flow.fin_announced &&
         segment.sequence == flow.fin_sequence;
}

void receive_segment(TunFlow& flow, const TcpSegment& segment) {
  // A SYN is of another connection, on a port that its client has given away again.
  if (flow.fading.linked && segment.flags != TcpFlag::syn) fade(flow);
  if (!segment.payload.empty()) return receive_payload(flow, segment);
  if (segment.flags == (TcpFlag::rst | TcpFlag::ack)) return reset_flow(flow);
  if (segment.flags == TcpFlag::ack) return receive_ack(flow, segment);
  if (segment.flags == (TcpFlag::fin | TcpFlag::ack) || repeats_announced_fin(flow, segment)) {
    receive_fin(flow, segment);
  }
}

void take_syn(const IpPacket& packet, const TcpSegment& segment) {
  TunFlow& flow = open_flow({.version = packet.version,
                             .source = packet.destination,
                             .destination = packet.source,
                             .source_port_be = segment.destination_port_be,
                             .destination_port_be = segment.source_port_be});
  flow.client_window = segment.window;
  flow.next_expected = segment.sequence + 1;
  limit_fading();
  send_syn_ack(flow);
  handler(flow);
}

}  // namespace

void tun_open_flows(PacketHandler packet_handler) { handler = packet_handler; }

const TunFlow* tun_gathering() { return gathering; }

void tun_deliver() {
  if (gathering == nullptr) return;
  TunFlow& flow = *std::exchange(gathering, nullptr);
  handler(flow);
  keep_arriving(flow);
}

bool tun_continues(const IpPacket& packet, const TcpSegment& segment) {
  if (gathering == nullptr) return false;
  const TunFlow& flow = *gathering;
  return !segment.payload.empty() &&
         is_named(flow, {packet.version, packet.source, segment.source_port_be}) &&
         segment.payload.data() == flow.arriving.data() + flow.arriving.size() &&
         segment.sequence == flow.next_expected && may_join(flow, segment.payload.size());
}

void tun_handle_tcp(const IpPacket& packet, const TcpSegment& segment, std::size_t packet_length) {
  TunFlow* flow = find_flow({packet.version, packet.source, segment.source_port_be});
  if (flow != nullptr) return receive_segment(*flow, segment);
  if (segment.flags == TcpFlag::syn) return take_syn(packet, segment);
  HeaderBuffer buffer;
  write_packet(build_reset(buffer, packet, packet_length, segment));
}

void tun_expire_flows(std::int64_t now_ms) {
  while (TunFlow* flow = longest_silent_flow()) {
    if (now_ms - flow->heard_at_ms < silence_limit_ms) return;
    give_up(*flow);
  }
}

std::optional<std::int64_t> tun_next_expiry_ms() {
  const TunFlow* flow = longest_silent_flow();
  if (flow == nullptr) return std::nullopt;
  return flow->heard_at_ms + silence_limit_ms;
}

ssize_t tun_flow_peek(const TunFlow& flow) {
  errno = EINVAL;
  if (!flow.is_established()) return -1;
  errno = 0;
  if (flow.unread() != 0) return static_cast<ssize_t>(flow.unread());
  if (flow.has(closed_here | fin_sent | fin_received)) return 0;
  errno = flow.has(reset_by_client) ? EPIPE : EAGAIN;
  return -1;
}

Bytes tun_flow_at_hand(const TunFlow& flow) {
  return flow.is_established() && flow.received.empty() ? flow.arriving : Bytes{};
}

void tun_flow_took(TunFlow& flow, std::size_t count) {
  flow.arriving = flow.arriving.subspan(count);
  tell_window(flow);
}

ssize_t tun_flow_read(TunFlow& flow, std::span<char> buffer) {
  const ssize_t waiting = tun_flow_peek(flow);
  if (waiting < 1) return waiting;
  std::size_t count = 0;
  const auto take = [&](Bytes bytes) {
    const std::size_t part = std::min(bytes.size(), buffer.size() - count);
    if (part != 0) std::memcpy(buffer.data() + count, bytes.data(), part);
    count += part;
    return part;
  };
  if (!flow.received.empty()) {
    const Pieces pieces = flow.received.front(flow.received.size());
    const std::size_t first = take(pieces[0]);
    flow.received.consume(first + take(pieces[1]));
    if (flow.received.empty()) take_back_receive_buffer(flow);
  }
  flow.arriving = flow.arriving.subspan(take(flow.arriving));
  tell_window(flow);
  errno = 0;
  return static_cast<ssize_t>(count);
}

ssize_t tun_flow_write(TunFlow& flow, std::string_view bytes) {
  if (flow.has(reset_by_client | closed_here | fin_sent)) {
    errno = EPIPE;
    return -1;
  }
  const std::size_t room = send_limit() - std::min(send_limit(), flow.unsent.size());
  if (room == 0 || flow.is_in(syn_received)) {
    flow.set(write_refused);
    errno = EAGAIN;
    return -1;
  }
  const std::size_t count = std::min(bytes.size(), room);
  // Who got rid of a part waits to be told, as after a short write on a socket.
  if (count != bytes.size()) flow.set(write_refused);
  Bytes rest{reinterpret_cast<const std::uint8_t*>(bytes.data()), count};
  if (flow.unsent.empty()) {
    const Bytes at_once = rest.first(std::min(count, segment_limit(flow)));
    if (!at_once.empty()) send_payload(flow, {at_once, {}});
    rest = rest.subspan(at_once.size());
  }
  if (!rest.empty()) {
    lend_send_buffer(flow);
    flow.unsent.append(rest);
    send_waiting(flow);
  }
  errno = 0;
  return static_cast<ssize_t>(count);
}

void tun_flow_close(TunFlow& flow) {
  flow.session = nullptr;
  if (flow.has(reset_by_client | closed_here)) return;
  flow.set(closed_here);
  flow.arriving = {};
  take_back_receive_buffer(flow);
  set_unfinished(flow, flow.is_established());
  fade(flow);
  limit_lingering();
  // Otherwise the FIN follows the client's next acknowledgement. Without anything
  // outstanding there would be none, and the client would never see the end.
  const bool nothing_outstanding = flow.acknowledged || flow.has(fin_received);
  if (flow.is_established() && flow.unsent.empty() && nothing_outstanding) send_fin(flow);
}

}  // namespace vrox::tun
