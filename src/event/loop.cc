#include "event/loop.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <optional>
#include <span>
#include <utility>

#include "event/device.h"
#include "event/packet_buffer.h"
#include "main/clock.h"

namespace vrox::event {

namespace {

constexpr int pass_packets = 64;
constexpr std::int64_t retry_ms = 1000;

constinit Loop* owner = nullptr;  // null without a device
constinit tun::PacketHandler handler = nullptr;
constinit PacketBuffer buffer;
constinit TunEvent* event_record = nullptr;

constinit bool can_ask_without_waiting = true;  // the kernel and the device know RWF_NOWAIT
constinit bool read_nothing = false;            // the last read gave no byte
constinit bool failed = false;
constinit std::int64_t failed_at_ms = 0;

std::uint64_t event_data() { return static_cast<std::uint64_t>(tun_fd); }

// ---- reading ------------------------------------------------------------------

enum class Read : std::uint8_t { packet, nothing, failure };

// preadv2(2), which C libraries for older systems lack; -1 is no offset, in two halves.
ssize_t read_without_waiting(const iovec& part) {
  return syscall(SYS_preadv2, tun_fd, &part, 1UL, -1L, -1L, RWF_NOWAIT);
}

Read read_packet(std::span<std::uint8_t> room, ssize_t& length) {
  iovec part{.iov_base = room.data(), .iov_len = room.size()};
  errno = 0;
  length = can_ask_without_waiting ? read_without_waiting(part)
                                   : read(tun_fd, part.iov_base, part.iov_len);
  const bool was_empty = std::exchange(read_nothing, length == 0);
  if (length > 0) return Read::packet;
  // An empty message, or whoever held the other end has gone.
  if (length == 0) return was_empty ? Read::failure : Read::packet;
  if (errno == EAGAIN || errno == EINTR) return Read::nothing;
  if (can_ask_without_waiting && (errno == EOPNOTSUPP || errno == ENOSYS)) {
    can_ask_without_waiting = false;
    return Read::nothing;
  }
  return Read::failure;
}

void pause_device() {
  owner->unwatch(tun_fd);
  failed = true;
  failed_at_ms = monotonic_ms();
}

void resume_device() {
  if (owner->watch(tun_fd, EPOLLIN, event_data())) {
    failed = false;
  } else {
    failed_at_ms = monotonic_ms();
  }
}

// ---- sorting ------------------------------------------------------------------

struct TcpPacket {
  tun::IpPacket ip;
  tun::TcpSegment segment;
};

std::optional<TcpPacket> parse_tcp(tun::Bytes packet) {
  const std::optional<tun::IpPacket> ip = tun::parse_ip(packet);
  if (!ip) return std::nullopt;
  const std::optional<tun::TcpSegment> segment = tun::parse_tcp(*ip);
  if (!segment) return std::nullopt;
  return TcpPacket{*ip, *segment};
}

void handle_tcp(tun::Bytes packet) {
  std::optional<TcpPacket> tcp = parse_tcp(packet);
  bool stays = true;
  if (tun::tun_gathering() != nullptr) {
    stays = !tcp || !buffer.overlaps(tcp->segment.payload);
    if (stays) {
      buffer.put_back();  // all that is needed of the headers is in the records
    } else {
      tcp = parse_tcp(buffer.move_away(packet.size()));
    }
  }
  if (!tcp) return;
  if (!tun::tun_continues(tcp->ip, tcp->segment)) tun::tun_deliver();
  tun::tun_handle_tcp(tcp->ip, tcp->segment, packet.size());
  if (!stays) tun::tun_deliver();  // before another packet moves there
}

// What is handed out whole moves out of the way, and what waits is told first.
tun::Bytes make_way(tun::Bytes packet) {
  if (tun::tun_gathering() == nullptr) return packet;
  packet = buffer.move_away(packet.size());
  tun::tun_deliver();
  return packet;
}

void handle_packet(tun::Bytes packet) {
  const std::optional<tun::PacketKind> found = tun::classify(packet);
  if (found && found->protocol == tun::protocol_tcp) return handle_tcp(packet);
  packet = make_way(packet);
  if (!found) return;
  if (found->protocol == tun::protocol_udp) {
    const std::uint8_t kind = tun::kind_code(found->version, tun::udp_datagram);
    if (!tun_parse_udp(kind, *event_record, packet)) return;
  } else {
    event_record->kind = tun::kind_code(found->version, tun::other_protocol);
    event_record->packet = packet;
  }
  handler(*event_record);
}

std::span<std::uint8_t> room_for_packet() {
  const tun::TunFlow* flow = tun::tun_gathering();
  if (flow != nullptr && buffer.has_room_behind(flow->arriving)) {
    return buffer.room_behind(flow->arriving, flow->version());
  }
  tun::tun_deliver();
  return buffer.room();
}

// False when there is no more to read.
bool take_packet() {
  const std::span<std::uint8_t> room = room_for_packet();
  ssize_t length = 0;
  switch (read_packet(room, length)) {
    case Read::packet:
      handle_packet(room.first(static_cast<std::size_t>(length)));
      return true;
    case Read::nothing:
      return false;
    case Read::failure:
      pause_device();
      return false;
  }
  return false;
}

}  // namespace

bool tun_parse_udp(std::uint8_t kind, TunEvent& event, tun::Bytes packet) {
  const std::optional<tun::IpPacket> ip = tun::parse_ip(packet);
  if (!ip) return false;
  const std::optional<tun::UdpDatagram> udp = tun::parse_udp(*ip);
  if (!udp) return false;
  event.kind = kind;
  event.source = ip->source;
  event.destination = ip->destination;
  event.source_port_be = udp->source_port_be;
  event.destination_port_be = udp->destination_port_be;
  event.payload = udp->payload;
  return true;
}

bool tun_attach(Loop& loop, tun::PacketHandler packet_handler) {
  tun_assert(tun_options.mtu >= 0, 24, "ptr != NULL");  // a size that no memory has
  buffer.open(static_cast<std::size_t>(tun_options.mtu), tun::max_gathered);
  event_record = new (tun_allocate(sizeof(TunEvent))) TunEvent;
  handler = packet_handler;
  tun::tun_open_flows(packet_handler);
  if (!tun_options.blocking) {
    tun_assert(fcntl(tun_fd, F_SETFL, fcntl(tun_fd, F_GETFL) | O_NONBLOCK) != -1, 162,
               "-1 != (fcntl(tunFd, F_SETFL, fcntl(tunFd, F_GETFL) | O_NONBLOCK))");
  }
  if (!loop.watch(tun_fd, EPOLLIN, event_data())) return false;
  owner = &loop;
  return true;
}

bool tun_is_source(std::uint64_t data) { return owner != nullptr && data == event_data(); }

void tun_event_loop() {
  // Where only a plain read can be asked, the event promises one packet.
  const int limit = can_ask_without_waiting ? pass_packets : 1;
  for (int count = 0; count < limit && take_packet(); ++count) {
  }
  tun::tun_deliver();
}

void tun_end_pass() {
  if (owner == nullptr) return;
  const std::optional<std::int64_t> expiry = tun::tun_next_expiry_ms();
  if (!failed && !expiry) return;
  const std::int64_t now = monotonic_ms();
  if (failed && now - failed_at_ms >= retry_ms) resume_device();
  tun::tun_expire_flows(now);
}

int tun_wait_limit_ms() {
  if (owner == nullptr) return -1;
  if (tun::tun_looks_again()) return 0;
  std::optional<std::int64_t> until = tun::tun_next_expiry_ms();
  if (failed) until = std::min(until.value_or(INT64_MAX), failed_at_ms + retry_ms);
  if (!until) return -1;
  return static_cast<int>(std::clamp<std::int64_t>(*until - monotonic_ms(), 0, INT_MAX));
}

}  // namespace vrox::event
