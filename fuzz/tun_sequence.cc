// Sequences of segments and proxy calls on two flows, four bytes a step. A byte is
// told by its place in the stream, the client's as well as ours: what is read, and
// what is sent, must go on exactly where it stood. Sizes up to what the device and
// the buffers take come from tables, so that few bytes of input reach them.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "main/clock.h"
#include "tun_link.h"

namespace {

using namespace vrox;
using tun_link::check;

constexpr std::uint32_t client_isn = 0xffffff00;
constexpr std::size_t max_packet = 65535;  // the MTU
constexpr std::size_t everything = 300'000;

// ---- what the streams consist of ------------------------------------------------

// A stream repeats itself only after a prime number of bytes.
tun::Bytes stream_at(std::int64_t place, std::size_t size) {
  constexpr std::int64_t period = 65521;
  static const std::vector<std::uint8_t> bytes = [] {
    std::vector<std::uint8_t> all(period + everything);
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i] = static_cast<std::uint8_t>(i % period * 2654435761U >> 24);
    }
    return all;
  }();
  const auto from = static_cast<std::size_t>((place % period + period) % period);
  return tun::Bytes(bytes).subspan(from, size);
}
// Bytes of an earlier connection may be numbered before the first one.
tun::Bytes client_stream(std::uint32_t sequence, std::size_t size) {
  return stream_at(static_cast<std::int32_t>(sequence - client_isn), size);
}
tun::Bytes own_stream(std::size_t at, std::size_t size) {
  return stream_at(static_cast<std::int64_t>(at) + 32'000, size);
}

bool same(tun::Bytes some, tun::Bytes other) {
  return std::equal(some.begin(), some.end(), other.begin(), other.end());
}

// ---- the two ends of a flow -----------------------------------------------------

enum class Reading : std::uint8_t { none, some, all, at_hand, half_at_hand, then_close };

struct Peer {
  tun::Route route;
  tun::TunFlow* flow = nullptr;

  std::uint32_t read = 0;   // by the proxy
  std::size_t written = 0;  // likewise
  Reading reading = Reading::none;
  std::size_t refill = 50;  // is written when there is room again

  std::size_t received = 0;            // by the client
  bool finished = false;               // so is our FIN
  std::uint32_t next = 0;              // the client's acknowledgement number
  bool jumped = false;                 // it acknowledged what was never sent
  std::uint16_t offered = 0;           // the largest window since the last bytes came
  std::uint32_t due = client_isn + 1;  // the last acknowledgement number it got
  std::uint32_t ahead = due;           // likewise, if everything is taken that is under way
  std::uint32_t sent = due;            // the end of all that it ever sent
};
constinit std::array<Peer, 2> peers{};

bool at_or_after(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) >= 0; }

// ---- the proxy ------------------------------------------------------------------

void read_some(Peer& peer, std::size_t size) {
  static std::vector<char> buffer(everything);
  const ssize_t count = tun::tun_flow_read(*peer.flow, std::span(buffer).first(size));
  check(count <= static_cast<ssize_t>(size));
  if (count <= 0) return;
  const tun::Bytes bytes{reinterpret_cast<const std::uint8_t*>(buffer.data()),
                         static_cast<std::size_t>(count)};
  check(same(bytes, client_stream(client_isn + 1 + peer.read, bytes.size())));
  peer.read += static_cast<std::uint32_t>(count);
}

void take_at_hand(Peer& peer, std::size_t part) {
  const tun::Bytes bytes = tun::tun_flow_at_hand(*peer.flow);
  if (bytes.empty()) return;
  check(same(bytes, client_stream(client_isn + 1 + peer.read, bytes.size())));
  const std::size_t count = bytes.size() / part;
  tun::tun_flow_took(*peer.flow, count);
  peer.read += static_cast<std::uint32_t>(count);
}

void write_some(Peer& peer, std::size_t size) {
  const tun::Bytes bytes = own_stream(peer.written, size);
  const ssize_t count = tun::tun_flow_write(
      *peer.flow, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  check(count <= static_cast<ssize_t>(size));
  if (count > 0) peer.written += static_cast<std::size_t>(count);
}

void close(Peer& peer) {
  tun::tun_flow_close(*peer.flow);
  peer.flow = nullptr;
}

void read_in_handler(Peer& peer) {
  switch (peer.reading) {
    case Reading::none:
      return;
    case Reading::some:
      return read_some(peer, 300);
    case Reading::all:
      return read_some(peer, everything);
    case Reading::at_hand:
      return take_at_hand(peer, 1);
    case Reading::half_at_hand:
      return take_at_hand(peer, 2);
    case Reading::then_close:
      take_at_hand(peer, 2);
      return close(peer);
  }
}

void handle(tun::TunRecord& record) {
  auto& flow = static_cast<tun::TunFlow&>(record);
  Peer& peer = peers[flow.version() == tun::ip_v4 ? 0 : 1];
  switch (flow.kind < 0x10 ? flow.kind : flow.kind >> 4) {
    case tun::syn_received:
      peer.flow = &flow;
      peer.read = peer.next = 0;
      peer.written = peer.received = 0;
      peer.jumped = peer.finished = false;
      return;
    case tun::established:
      if (peer.flow != nullptr) read_in_handler(peer);
      if (peer.flow != nullptr && flow.has(tun::reset_by_client)) close(peer);
      return;
    default:
      if (peer.flow != nullptr) write_some(peer, peer.refill);
  }
}

// ---- the client's TCP -----------------------------------------------------------

// Summed up as RFC 1071 tells it.
class PlainSum {
 public:
  void add(tun::Bytes bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      sum_ += i % 2 == 0 ? std::uint64_t{bytes[i]} << 8 : bytes[i];
    }
  }
  void add(std::size_t number) { sum_ += number; }
  [[nodiscard]] bool is_right() const { return sum_ != 0 && sum_ % 0xffff == 0; }

 private:
  std::uint64_t sum_ = 0;
};

void check_sums(tun::Bytes packet, const tun::IpPacket& ip) {
  const std::size_t address = ip.version == tun::ip_v4 ? 4 : 16;
  PlainSum header;
  header.add(packet.first(ip.header_length));
  check(ip.version == tun::ip_v6 || header.is_right());
  PlainSum all;
  all.add(tun::Bytes(ip.source).first(address));
  all.add(tun::Bytes(ip.destination).first(address));
  all.add(tun::protocol_tcp);
  all.add(ip.transport.size());
  all.add(ip.transport);
  check(all.is_right());
}

void take_segment(Peer& peer, const tun::TcpSegment& segment) {
  if ((segment.flags & tun::syn) != 0) {
    peer.next = 1;
    peer.due = peer.sent = client_isn + 1;
  }
  check(at_or_after(segment.acknowledgement, peer.due));
  check(at_or_after(peer.sent, segment.acknowledgement));
  peer.due = segment.acknowledgement;
  if (peer.jumped || (segment.flags & tun::syn) != 0) return;
  check(segment.sequence == 1 + peer.received + (peer.finished ? 1 : 0));
  if (!segment.payload.empty()) {
    check(!peer.finished && segment.payload.size() <= peer.offered);
    check(same(segment.payload, own_stream(peer.received, segment.payload.size())));
    peer.received += segment.payload.size();
    peer.offered = 0;
  }
  if ((segment.flags & tun::fin) != 0) {
    check(!peer.finished);
    peer.finished = true;
  }
  peer.next = static_cast<std::uint32_t>(1 + peer.received + (peer.finished ? 1 : 0));
}

// Takes what is due, in order.
void take_answer(tun::Bytes packet) {
  const auto ip = tun::parse_ip(packet);
  const auto segment = ip ? tun::parse_tcp(*ip) : std::nullopt;
  // The lengths of a reset over IPv6, or that answers IP options, are odd on purpose.
  if (!segment) return check(packet.size() > 40 && packet[packet.size() - 7] == 0x14);
  if ((segment->flags & tun::rst) != 0) return;
  check_sums(packet, *ip);
  take_segment(peers[ip->version == tun::ip_v4 ? 0 : 1], *segment);
}

// Handles what is under way, after which nothing may be missing.
void pump() {
  tun_link::pump(take_answer);
  for (Peer& peer : peers) {
    peer.ahead = peer.due;
    if (peer.flow == nullptr) continue;
    const tun::TunFlow& flow = *peer.flow;
    check(flow.next_expected == peer.due);
    const std::uint32_t taken = peer.due - client_isn - (flow.has(tun::fin_received) ? 2 : 1);
    check(peer.read + flow.unread() == taken);
    check(peer.jumped || peer.written == peer.received + flow.unsent.size());
  }
}

// What stands around a payload but plain headers.
struct Extras {
  std::size_t ip_options = 0;
  std::size_t tcp_options = 0;
  std::size_t padding = 0;  // behind the packet
  std::size_t missing = 0;  // of its end, so that it is none
};

void inject(const Peer& peer, const tun::TcpFields& fields, tun::Bytes payload,
            const Extras& extras) {
  const bool v4 = peer.route.version == tun::ip_v4;
  const std::size_t ip_length = tun::ip_header(peer.route.version);
  const std::size_t tcp_at = ip_length + extras.ip_options;
  // Nobody looks at the checksums of what comes from the device, so they stay as
  // they are without options.
  tun::HeaderBuffer buffer;
  const tun::Bytes header = tun::build_tcp(buffer, peer.route, fields, {payload.size(), {}});
  std::vector<std::uint8_t> packet(header.begin(), header.end());
  packet.insert(packet.end(), extras.tcp_options, 1);
  packet.insert(packet.begin() + static_cast<std::ptrdiff_t>(ip_length), extras.ip_options, 1);
  packet.insert(packet.end(), payload.begin(), payload.end());
  const std::size_t length = v4 ? packet.size() : packet.size() - ip_length;
  packet[v4 ? 2 : 4] = static_cast<std::uint8_t>(length >> 8);
  packet[v4 ? 3 : 5] = static_cast<std::uint8_t>(length);
  if (v4) packet[0] = static_cast<std::uint8_t>(0x40 + tcp_at / 4);
  packet[tcp_at + 12] = static_cast<std::uint8_t>((tun::tcp_header + extras.tcp_options) / 4 << 4);
  packet.resize(packet.size() + extras.padding - extras.missing);
  tun_link::put(packet);
}

// ---- steps ----------------------------------------------------------------------

constexpr std::uint8_t held_bit = 0x10;   // handled together with the next step
constexpr std::uint8_t large_bit = 0x20;  // sizes come from the tables
constexpr std::uint8_t extras_bit = 0x40;
constexpr std::uint8_t train_bit = 0x80;  // more such segments follow

constexpr std::size_t large_size = 4000;

struct Segment {
  std::uint8_t flags = 0;
  std::uint16_t window = 0;
  std::size_t size = 0;
  std::int64_t known = 0;  // how far before what is due it begins
  std::uint32_t acknowledgement = 0;
  Extras extras;
};

Extras extras_of(const Peer& peer, const std::uint8_t* op) {
  constexpr std::size_t most = 40;
  if ((op[0] & extras_bit) == 0) return {};
  switch (op[1] >> 6) {
    case 0:
      return {.tcp_options = 12};
    case 1:
      return {.tcp_options = most};
    case 2:
      return {.ip_options = peer.route.version == tun::ip_v4 ? most : 0, .tcp_options = most};
    default:
      return (op[1] & 0x20) != 0 ? Extras{.padding = 7} : Extras{.missing = 1};
  }
}

// Near the place that is due, or from nowhere.
Segment small_segment(const Peer& peer, const std::uint8_t* op) {
  const std::uint8_t where = op[2];
  Segment segment;
  segment.window = static_cast<std::uint16_t>(op[3] * 16);
  segment.size = (where & 8) == 0 ? 0 : op[3];
  segment.known = 80 - where % 8 * 20;
  segment.acknowledgement = peer.next;
  if (where >= 0xf0) segment.acknowledgement += 1000;
  if (where >= 0xe0) segment.acknowledgement -= 5;
  return segment;
}

// The first one of a train, or one of those behind it.
Segment large_segment(const Peer& peer, const std::uint8_t* op, std::size_t room, int place) {
  constexpr std::array<std::size_t, 16> sizes{1,     2,     500,   1460,  4000,  8000,
                                              16000, 30000, 32767, 32768, 60000, 65000,
                                              65400, 65474, 65494, 65535};
  constexpr std::array<std::uint16_t, 16> windows{
      0, 1, 4, 100, 499, 1460, 8000, 16384, 30000, 32766, 32767, 32769, 60000, 65494, 65495, 65535};
  Segment segment;
  segment.window = windows[op[3] >> 4];
  std::size_t size = std::min(sizes[op[3] & 15], room);
  // Halves fill whatever limit the first ones left room below.
  if (size >= large_size) size >>= place;
  const auto all = static_cast<std::int64_t>(size);
  const std::array<std::int64_t, 16> known{0,     0,     0,       0,       0,   1,  80,   500,
                                           30000, 64499, all / 2, all - 1, all, -1, -500, -30000};
  segment.known = known[op[2] & 15];
  segment.size = (op[2] & 0x10) != 0 ? 0 : size;
  segment.acknowledgement = peer.next;
  if (op[2] >> 5 == 6) segment.acknowledgement -= 5;
  if (op[2] >> 5 == 7) segment.acknowledgement += 1000;
  return segment;
}

void send(Peer& peer, const Segment& segment) {
  const bool opens = segment.flags == tun::syn;
  // What it knows of an earlier connection must not be taken for the new one's.
  if (opens) pump();
  if (static_cast<std::int32_t>(segment.acknowledgement - peer.next) > 0) peer.jumped = true;
  const std::uint32_t sequence =
      opens ? client_isn : peer.ahead - static_cast<std::uint32_t>(segment.known);
  const std::size_t size = opens ? 0 : segment.size;
  const bool ends = size == 0 && (segment.flags & tun::fin) != 0;
  const std::uint32_t end = sequence + static_cast<std::uint32_t>(size) + (ends ? 1 : 0);
  peer.offered = std::max(peer.offered, segment.window);
  if (!opens && at_or_after(end, peer.sent)) peer.sent = end;
  if (at_or_after(peer.ahead, sequence) && at_or_after(end, peer.ahead)) peer.ahead = end;
  inject(peer,
         {.sequence = sequence,
          .acknowledgement = segment.acknowledgement,
          .flags = segment.flags,
          .window = segment.window,
          .mss = {}},
         client_stream(sequence, size), segment.extras);
  if (opens) pump();
}

void send_segment(Peer& peer, std::uint8_t flags, const std::uint8_t* op) {
  const Extras extras = extras_of(peer, op);
  const std::size_t room = max_packet - tun::ip_header(peer.route.version) - extras.ip_options -
                           tun::tcp_header - extras.tcp_options - extras.padding;
  const bool is_train = (op[0] & train_bit) != 0;
  int count = 1;
  for (int i = 0; i < count; ++i) {
    Segment segment =
        (op[0] & large_bit) != 0 ? large_segment(peer, op, room, i) : small_segment(peer, op);
    segment.flags = flags;
    segment.extras = extras;
    send(peer, segment);
    // A pass handles 64 packets, of which a few are for what comes before and after.
    if (is_train && i == 0) count = segment.size >= large_size ? 8 : 60;
  }
}

// What the proxy reads or writes.
std::size_t call_size(const std::uint8_t* op) {
  constexpr std::array<std::size_t, 12> sizes{0,     1,     500,    1460,    30000,   32768,
                                              65400, 65536, 100000, 131'073, 196'608, 200'000};
  return (op[0] & large_bit) != 0 ? sizes[op[3] % sizes.size()] : op[3] * std::size_t{4};
}

void change_handler(Peer& peer, const std::uint8_t* op) {
  if ((op[0] & large_bit) != 0) {
    peer.reading = static_cast<Reading>(op[3] % 6);
    peer.refill = op[2] % 2 == 0 ? 50 : 70'000;
    return;
  }
  peer.reading = peer.reading == Reading::none ? Reading::some : Reading::none;
  if (op[3] > 250) tun::tun_expire_flows(monotonic_ms() + 301'000);
}

void step(const std::uint8_t* op) {
  constexpr std::array<std::uint8_t, 8> usual{0x02, 0x10, 0x18, 0x11, 0x14, 0x19, 0x10, 0x18};
  Peer& peer = peers[op[0] & 1];
  switch (op[0] >> 1 & 7) {
    case 0:
      return send_segment(peer, op[1] & tun::tcp_flags_mask, op);
    case 4:
      if (peer.flow != nullptr) read_some(peer, call_size(op));
      break;
    case 5:
      if (peer.flow != nullptr) write_some(peer, call_size(op));
      break;
    case 6:
      if (peer.flow != nullptr && op[3] > 200) close(peer);
      break;
    case 7:
      return change_handler(peer, op);
    default:
      return send_segment(peer, usual[op[1] & 7], op);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tun_link::open(handle);
  if (size == 0) return 0;
  event::tun_options.tcp_rmax = (data[0] & 1) != 0 ? 500 : (data[0] & 4) != 0 ? 140'001 : 196'608;
  event::tun_options.tcp_wmax = (data[0] & 2) != 0 ? 300 : (data[0] & 8) != 0 ? 70'001 : 196'608;
  peers = {};
  peers[0].route = {tun::ip_v4, {10, 5, 5, 1}, {192, 0, 2, 7}, htons(40000), htons(443)};
  peers[1].route = {tun::ip_v6, {0xfd, 1}, {0x20, 1}, htons(40000), htons(443)};
  // Steps of the clients are handled together until the proxy does something.
  for (std::size_t at = 1; at + 4 <= size; at += 4) {
    const bool client_acts = (data[at] >> 1 & 7) < 4;
    step(data + at);
    if (!client_acts || (data[at] & held_bit) == 0) pump();
  }
  pump();
  for (Peer& peer : peers) {
    peer.reading = Reading::none;
    inject(peer, {.flags = 0x14, .mss = {}}, {}, {});
  }
  pump();
  check(tun::tun_flow_count() == 0);
  return 0;
}
