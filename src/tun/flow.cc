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
// only for what has to wait, and goes back when it is empty. Half-open and closed
// flows have a limit, beyond which the longest silent one goes, and a much lower one
// while they hold a buffer: they belong to no session any more, whose number is
// limited by itself.
//
// The handler may call back into read, write and close, but it never frees a
// flow, so a flow is there until the function that handles its packet ends.
#include "tun/flow.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "event/device.h"
#include "main/clock.h"
#include "main/random.h"

namespace vrox::tun {

namespace {

constexpr std::int64_t silence_limit_ms = std::int64_t{5} * 60 * 1000;
constexpr std::size_t max_fading = 65536;
constexpr std::size_t lingering_memory = std::size_t{64} << 20;
constexpr std::size_t max_window = 65535;
constexpr std::size_t mss_headers = 24;  // as the MSS option counts the TCP header

constinit PacketHandler handler = nullptr;

std::size_t limit_of(std::int32_t option) {
  return option > 0 ? static_cast<std::size_t>(option) : 0;
}
std::size_t receive_limit() { return limit_of(event::tun_options.tcp_rmax); }
std::size_t send_limit() { return limit_of(event::tun_options.tcp_wmax); }

// Whether sequence number `a` is at `b` or behind it, on the circle of 2^32.
bool at_or_after(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) >= 0; }

bool has(const TunFlow& flow, unsigned flags) { return (flow.flags & flags) != 0; }
void set(TunFlow& flow, FlowFlag flag) {
  flow.flags = static_cast<std::uint8_t>(flow.flags | flag);
}

bool is_in(const TunFlow& flow, Kind state) {
  return flow.kind == kind_code(flow.version(), state);
}
bool is_established(const TunFlow& flow) {
  return is_in(flow, established) || is_in(flow, writable);
}

// ---- buffers --------------------------------------------------------------------

// Buffers of the size that is asked for, of which the last few that came back are
// kept for the next.
class BufferPool {
 public:
  void lend(ByteRing& ring, std::size_t size) {
    if (ring.has_memory()) return;
    while (count_ != 0 && kept_[count_ - 1].size() != size) std::free(kept_[--count_].data());
    if (count_ != 0) return ring.attach(kept_[--count_]);
    ring.attach({static_cast<std::uint8_t*>(event::tun_allocate(size)), size});
  }
  void take_back(ByteRing& ring) {
    if (!ring.has_memory()) return;
    const std::span<std::uint8_t> memory = ring.detach();
    if (count_ == kept_.size()) {
      std::free(memory.data());
    } else {
      kept_[count_++] = memory;
    }
  }

 private:
  std::array<std::span<std::uint8_t>, 16> kept_{};
  std::size_t count_ = 0;
};

constinit BufferPool receive_buffers;
constinit BufferPool send_buffers;

// ---- the flows ------------------------------------------------------------------

constexpr std::size_t first_buckets = 1024;
constinit TunFlow** buckets = nullptr;
constinit std::size_t bucket_count = 0;  // a power of two
constinit std::size_t flow_count = 0;

using FadingList = LinkedList<TunFlow, &TunFlow::fading>;
constinit FadingList fading_flows;
constinit std::size_t fading_count = 0;

using LingeringList = LinkedList<TunFlow, &TunFlow::lingering>;
constinit LingeringList lingering_flows;
constinit std::size_t lingering_count = 0;
constinit std::atomic<std::size_t> unfinished_count = 0;

// The destination is not part of a flow's name, intended: a client port is one
// flow, wherever it goes.
struct Name {
  std::uint8_t version = 0;
  Address client{};
  std::uint16_t port_be = 0;
};

bool is_named(const TunFlow& flow, const Name& name) {
  return flow.to_client.destination_port_be == name.port_be && flow.version() == name.version &&
         flow.to_client.destination == name.client;
}

TunFlow*& bucket_of(const Name& name) {
  std::array<std::uint8_t, sizeof(Address) + 3> key{};
  std::memcpy(key.data(), name.client.data(), sizeof(Address));
  std::memcpy(key.data() + sizeof(Address), &name.port_be, 2);
  key.back() = name.version;
  return buckets[keyed_hash(key) & (bucket_count - 1)];
}
TunFlow*& bucket_of(const TunFlow& flow) {
  return bucket_of(
      {flow.version(), flow.to_client.destination, flow.to_client.destination_port_be});
}

TunFlow* find(const Name& name) {
  if (bucket_count == 0) return nullptr;
  TunFlow* flow = bucket_of(name);
  while (flow != nullptr && !is_named(*flow, name)) flow = flow->next_in_bucket;
  return flow;
}

void add_to_bucket(TunFlow& flow) {
  TunFlow*& bucket = bucket_of(flow);
  flow.next_in_bucket = bucket;
  bucket = &flow;
}

void make_room() {
  if (flow_count < bucket_count) return;
  const std::size_t old_count = bucket_count;
  TunFlow** old = buckets;
  bucket_count = std::max(first_buckets, old_count * 2);
  buckets = static_cast<TunFlow**>(event::tun_allocate(bucket_count * sizeof *buckets));
  for (std::size_t i = 0; i < old_count; ++i) {
    while (TunFlow* flow = old[i]) {
      old[i] = flow->next_in_bucket;
      add_to_bucket(*flow);
    }
  }
  std::free(old);
}

void stop_fading(TunFlow& flow) {
  if (!flow.fading.linked) return;
  fading_flows.remove(flow);
  --fading_count;
}

void stop_lingering(TunFlow& flow) {
  if (!flow.lingering.linked) return;
  lingering_flows.remove(flow);
  --lingering_count;
}

// At the end of the lists: it was heard of just now.
void fade(TunFlow& flow) {
  stop_fading(flow);
  flow.heard_at_ms = monotonic_ms();
  fading_flows.add(flow);
  ++fading_count;
  stop_lingering(flow);
  if (!has(flow, closed_here) || !flow.unsent.has_memory()) return;
  lingering_flows.add(flow);
  ++lingering_count;
}

void set_unfinished(TunFlow& flow, bool unfinished) {
  if (flow.unfinished == unfinished) return;
  flow.unfinished = unfinished;
  if (unfinished) {
    unfinished_count.fetch_add(1, std::memory_order_relaxed);
  } else {
    unfinished_count.fetch_sub(1, std::memory_order_relaxed);
  }
}

void take_back_send_buffer(TunFlow& flow) {
  send_buffers.take_back(flow.unsent);
  stop_lingering(flow);
}

void free_flow(TunFlow& flow) {
  TunFlow** link = &bucket_of(flow);
  while (*link != &flow) link = &(*link)->next_in_bucket;
  *link = flow.next_in_bucket;
  stop_fading(flow);
  set_unfinished(flow, false);
  receive_buffers.take_back(flow.received);
  take_back_send_buffer(flow);
  --flow_count;
  std::destroy_at(&flow);
  std::free(&flow);
}

// The last the handler hears of the flow.
void reset_flow(TunFlow& flow) {
  flow.kind = kind_code(flow.version(), established);  // not "new", should it be half-open
  flow.flags = reset_by_client;
  handler(flow);
  free_flow(flow);
}

// ---- sending --------------------------------------------------------------------

// A packet that the device refuses is lost, and its connection stalls until the
// client gives it up.
void write_packet(Bytes header, const Pieces& payload) {
  const auto part = [](Bytes bytes) {
    return iovec{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = bytes.size()};
  };
  const std::array parts{part(header), part(payload[0]), part(payload[1])};
  const int count = payload[1].empty() ? (payload[0].empty() ? 1 : 2) : 3;
  [[maybe_unused]] const ssize_t written = writev(event::tun_fd, parts.data(), count);
}

std::size_t window_of(const TunFlow& flow) {
  const std::size_t limit = receive_limit();
  return flow.unread() < limit ? std::min(limit - flow.unread(), max_window) : 0;
}

void send_segment(TunFlow& flow, TcpFields fields, const Pieces& payload = {}) {
  flow.told_window = static_cast<std::uint16_t>(window_of(flow));
  fields.sequence = flow.next_sent;
  fields.acknowledgement = flow.next_expected;
  fields.window = flow.told_window;
  HeaderBuffer buffer;
  write_packet(build_tcp(buffer, flow.to_client, fields, payload), payload);
}

void send_ack(TunFlow& flow) { send_segment(flow, {.flags = TcpFlag::ack, .mss = {}}); }

// Of the MTU; one that leaves no room gives a number that wrapped, which the
// interface would have refused first.
std::uint16_t own_mss(const TunFlow& flow) {
  const std::int64_t mss = std::int64_t{event::tun_options.mtu} -
                           static_cast<std::int64_t>(mss_headers + ip_header(flow.version()));
  return static_cast<std::uint16_t>(std::min<std::int64_t>(mss, max_window));
}

void send_syn_ack(TunFlow& flow) {
  send_segment(flow, {.flags = TcpFlag::syn | TcpFlag::ack, .mss = own_mss(flow)});
  ++flow.next_sent;
}

void send_fin(TunFlow& flow) {
  send_segment(flow, {.flags = TcpFlag::fin | TcpFlag::ack, .mss = {}});
  ++flow.next_sent;
  flow.acknowledged = false;
  set(flow, fin_sent);
  set_unfinished(flow, false);
}

std::size_t segment_limit(const TunFlow& flow) {
  return std::min<std::size_t>(flow.client_window,
                               flow.version() == ip_v4 ? max_tcp_payload_v4 : max_tcp_payload_v6);
}

void send_payload(TunFlow& flow, const Pieces& payload) {
  send_segment(flow, {.flags = TcpFlag::psh | TcpFlag::ack, .mss = {}}, payload);
  flow.next_sent += static_cast<std::uint32_t>(payload[0].size() + payload[1].size());
  flow.client_window = 0;
  flow.acknowledged = false;
  if (!flow.fading.linked) fade(flow);  // until it is acknowledged: the client may be gone
}

void send_waiting(TunFlow& flow) {
  const std::size_t count = std::min(flow.unsent.size(), segment_limit(flow));
  if (count == 0) return;
  send_payload(flow, flow.unsent.front(count));
  flow.unsent.consume(count);
  if (flow.unsent.empty()) take_back_send_buffer(flow);
}

// Tells a client that it will not get the rest of what was sent to it.
void give_up(TunFlow& flow) {
  if (!flow.unsent.empty()) {
    send_segment(flow, {.flags = TcpFlag::rst | TcpFlag::ack, .mss = {}});
  }
  reset_flow(flow);
}

// Never the flow at hand, which was heard of last.
void limit_fading() {
  if (fading_count > max_fading) give_up(*fading_flows.first());
}

// No session belongs to these, so this may be done while another one ends.
void limit_lingering() {
  const std::size_t most = lingering_memory / std::max<std::size_t>(1, send_limit());
  if (lingering_count > std::max<std::size_t>(1, most)) give_up(*lingering_flows.first());
}

// ---- receiving ------------------------------------------------------------------

void tell_writable(TunFlow& flow) {
  if (!has(flow, write_refused) || flow.unsent.size() >= send_limit()) return;
  flow.flags = static_cast<std::uint8_t>(flow.flags & ~unsigned{write_refused});
  flow.kind = kind_code(flow.version(), writable);
  handler(flow);
  flow.kind = kind_code(flow.version(), established);
}

// The client has acknowledged everything: what waited for that goes on.
void go_on_sending(TunFlow& flow) {
  if (has(flow, fin_sent)) return;
  if (!flow.unsent.empty()) {
    send_waiting(flow);
  } else if (has(flow, closed_here)) {
    send_fin(flow);
  }
  tell_writable(flow);
}

// Takes over what the segment acknowledges, and the window, if nothing is
// outstanding behind it.
bool take_acknowledgement(TunFlow& flow, const TcpSegment& segment) {
  if ((segment.flags & TcpFlag::ack) == 0) return false;
  if (!at_or_after(segment.acknowledgement, flow.next_sent)) return false;
  flow.next_sent = segment.acknowledgement;
  flow.client_window = segment.window;
  flow.acknowledged = true;
  // Both versions go on to what waits for the handshake, a FIN or a refused write:
  // a client that has nothing to say itself would send no other acknowledgement.
  if (is_in(flow, syn_received)) flow.kind = kind_code(flow.version(), established);
  if (!has(flow, closed_here)) stop_fading(flow);
  return true;
}

// The part of a payload that begins with the byte that is due.
Bytes due_part(const TunFlow& flow, const TcpSegment& segment) {
  const std::uint32_t known = flow.next_expected - segment.sequence;
  return known < segment.payload.size() ? segment.payload.subspan(known) : Bytes{};
}

void keep_arriving(TunFlow& flow) {
  if (!flow.arriving.empty()) {
    receive_buffers.lend(flow.received, receive_limit());
    flow.received.append(flow.arriving);
  }
  flow.arriving = {};
}

// ---- payload at hand ------------------------------------------------------------

constinit TunFlow* gathering = nullptr;  // whose payload waits to be told of

bool waits_for_acknowledgement(const TunFlow& flow) {
  return !flow.unsent.empty() || has(flow, closed_here | write_refused);
}

// Whether `count` more bytes may join what waits: they are told the same window
// as if it had been read.
bool may_join(const TunFlow& flow, std::size_t count) {
  return flow.arriving.size() + count <= max_gathered &&
         flow.unread() + count + max_window <= receive_limit() && !waits_for_acknowledgement(flow);
}

void receive_payload(TunFlow& flow, const TcpSegment& segment) {
  const bool acknowledges = take_acknowledgement(flow, segment);
  if (is_in(flow, syn_received)) return send_ack(flow);
  Bytes due = due_part(flow, segment);
  if (!has(flow, ending_flags)) {
    due =
        due.first(std::min(due.size(), receive_limit() - std::min(receive_limit(), flow.unread())));
    // What waits lies right before it in memory.
    const std::size_t waiting = gathering == &flow ? flow.arriving.size() : 0;
    flow.arriving = {due.data() - waiting, waiting + due.size()};
  }
  // After a close nobody wants it, but the client is to come to its end.
  if (!has(flow, fin_received)) flow.next_expected += static_cast<std::uint32_t>(due.size());
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
  if (is_in(flow, syn_received) || has(flow, fin_received) ||
      segment.sequence != flow.next_expected) {
    return send_ack(flow);
  }
  set(flow, fin_received);
  ++flow.next_expected;
  send_ack(flow);
  if (has(flow, fin_sent)) return free_flow(flow);
  handler(flow);
  if (acknowledges) go_on_sending(flow);
}

void receive_ack(TunFlow& flow, const TcpSegment& segment) {
  // A keep-alive or a window probe: it asks for an answer.
  if (segment.sequence != flow.next_expected) send_ack(flow);
  if (!take_acknowledgement(flow, segment)) return;
  if (!has(flow, fin_sent)) return go_on_sending(flow);
  if (!has(flow, fin_received)) return;
  std::puts("del");
  free_flow(flow);
}

bool repeats_announced_fin(const TunFlow& flow, const TcpSegment& segment) {
  return segment.flags == (TcpFlag::fin | TcpFlag::psh | TcpFlag::ack) && flow.fin_announced &&
         segment.sequence == flow.fin_sequence;
}

void receive_segment(TunFlow& flow, const TcpSegment& segment) {
  if (flow.fading.linked) fade(flow);
  if (!segment.payload.empty()) return receive_payload(flow, segment);
  if (segment.flags == (TcpFlag::rst | TcpFlag::ack)) return reset_flow(flow);
  if (segment.flags == TcpFlag::ack) return receive_ack(flow, segment);
  if (segment.flags == (TcpFlag::fin | TcpFlag::ack) || repeats_announced_fin(flow, segment)) {
    receive_fin(flow, segment);
  }
}

void open_flow(const IpPacket& packet, const TcpSegment& segment) {
  make_room();
  TunFlow& flow = *new (event::tun_allocate(sizeof(TunFlow))) TunFlow;
  flow.kind = kind_code(packet.version, syn_received);
  flow.to_client = {.version = packet.version,
                    .source = packet.destination,
                    .destination = packet.source,
                    .source_port_be = segment.destination_port_be,
                    .destination_port_be = segment.source_port_be};
  flow.client_window = segment.window;
  flow.next_expected = segment.sequence + 1;
  add_to_bucket(flow);
  ++flow_count;
  fade(flow);
  limit_fading();
  send_syn_ack(flow);
  handler(flow);
}

// Room below a segment, or half of what there may be, is not worth telling
// (RFC 9293, 3.8.6.2.2).
bool opens_window(const TunFlow& flow) {
  const std::size_t worth =
      std::max<std::size_t>(1, std::min<std::size_t>(own_mss(flow), receive_limit() / 2));
  return flow.told_window < worth && window_of(flow) >= worth;
}

// After a read.
void tell_window(TunFlow& flow) {
  if (!has(flow, ending_flags) && opens_window(flow)) send_ack(flow);
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
  TunFlow* flow = find({packet.version, packet.source, segment.source_port_be});
  if (flow != nullptr) return receive_segment(*flow, segment);
  if (segment.flags == TcpFlag::syn) return open_flow(packet, segment);
  HeaderBuffer buffer;
  write_packet(build_reset(buffer, packet, packet_length, segment), {});
}

void tun_expire_flows(std::int64_t now_ms) {
  while (TunFlow* flow = fading_flows.first()) {
    if (now_ms - flow->heard_at_ms < silence_limit_ms) return;
    give_up(*flow);
  }
}

std::optional<std::int64_t> tun_next_expiry_ms() {
  const TunFlow* flow = fading_flows.first();
  if (flow == nullptr) return std::nullopt;
  return flow->heard_at_ms + silence_limit_ms;
}

std::size_t tun_flow_count() { return flow_count; }

std::size_t tun_unfinished_flows() { return unfinished_count.load(std::memory_order_relaxed); }

ssize_t tun_flow_peek(const TunFlow& flow) {
  errno = EINVAL;
  if (!is_established(flow)) return -1;
  errno = 0;
  if (flow.unread() != 0) return static_cast<ssize_t>(flow.unread());
  if (has(flow, closed_here | fin_sent | fin_received)) return 0;
  errno = has(flow, reset_by_client) ? EPIPE : EAGAIN;
  return -1;
}

Bytes tun_flow_at_hand(const TunFlow& flow) {
  return is_established(flow) && flow.received.empty() ? flow.arriving : Bytes{};
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
    if (flow.received.empty()) receive_buffers.take_back(flow.received);
  }
  flow.arriving = flow.arriving.subspan(take(flow.arriving));
  tell_window(flow);
  errno = 0;
  return static_cast<ssize_t>(count);
}

ssize_t tun_flow_write(TunFlow& flow, std::string_view bytes) {
  if (has(flow, reset_by_client | closed_here | fin_sent)) {
    errno = EPIPE;
    return -1;
  }
  const std::size_t room = send_limit() - std::min(send_limit(), flow.unsent.size());
  if (room == 0 || is_in(flow, syn_received)) {
    set(flow, write_refused);
    errno = EAGAIN;
    return -1;
  }
  const std::size_t count = std::min(bytes.size(), room);
  // Who got rid of a part waits to be told, as after a short write on a socket.
  if (count != bytes.size()) set(flow, write_refused);
  Bytes rest{reinterpret_cast<const std::uint8_t*>(bytes.data()), count};
  if (flow.unsent.empty()) {
    const Bytes at_once = rest.first(std::min(count, segment_limit(flow)));
    if (!at_once.empty()) send_payload(flow, {at_once, {}});
    rest = rest.subspan(at_once.size());
  }
  if (!rest.empty()) {
    send_buffers.lend(flow.unsent, send_limit());
    flow.unsent.append(rest);
    send_waiting(flow);
  }
  errno = 0;
  return static_cast<ssize_t>(count);
}

void tun_flow_close(TunFlow& flow) {
  flow.session = nullptr;
  if (has(flow, reset_by_client | closed_here)) return;
  set(flow, closed_here);
  flow.arriving = {};
  receive_buffers.take_back(flow.received);
  set_unfinished(flow, is_established(flow));
  fade(flow);
  limit_lingering();
  // Otherwise the FIN follows the client's next acknowledgement. Without anything
  // outstanding there would be none, and the client would never see the end.
  const bool nothing_outstanding = flow.acknowledged || has(flow, fin_received);
  if (is_established(flow) && flow.unsent.empty() && nothing_outstanding) send_fin(flow);
}

void tun_send_udp(std::uint8_t version, Bytes source, std::uint16_t source_port_be,
                  Bytes destination, std::uint16_t destination_port_be, Bytes payload) {
  if (payload.size() > (version == ip_v4 ? max_udp_payload_v4 : max_udp_payload_v6)) return;
  Route route{.version = version == ip_v4 ? ip_v4 : ip_v6,
              .source_port_be = source_port_be,
              .destination_port_be = destination_port_be};
  std::copy(source.begin(), source.end(), route.source.begin());
  std::copy(destination.begin(), destination.end(), route.destination.begin());
  HeaderBuffer buffer;
  write_packet(build_udp(buffer, route, payload), {payload, {}});
}

}  // namespace vrox::tun
