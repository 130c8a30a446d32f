#include "tun/sending.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "event/device.h"
#include "main/clock.h"
#include "tun/flow.h"
#include "tun/flow_table.h"
#include "tun/short_wait.h"

namespace vrox::tun {

namespace {

constexpr std::size_t mss_headers = 24;  // as the MSS option counts the TCP header

constinit ShortWait short_wait;
constinit const TunFlow* awaited = nullptr;  // whose answer; it may be gone

std::size_t window_of(const TunFlow& flow) {
  const std::size_t limit = receive_limit();
  return flow.unread() < limit ? std::min(limit - flow.unread(), max_window) : 0;
}

void send_segment(TunFlow& flow, TcpFields fields, const Pieces& payload = {},
                  const PayloadSum& sum = {}) {
  flow.told_window = static_cast<std::uint16_t>(window_of(flow));
  fields.sequence = flow.next_sent;
  fields.acknowledgement = flow.next_expected;
  fields.window = flow.told_window;
  HeaderBuffer buffer;
  write_packet(build_tcp(buffer, flow.to_client, fields, sum), payload);
}

void send_summed(TunFlow& flow, const Pieces& payload, const PayloadSum& sum) {
  send_segment(flow, {.flags = TcpFlag::psh | TcpFlag::ack, .mss = {}}, payload, sum);
  flow.next_sent += static_cast<std::uint32_t>(sum.size);
  flow.client_window = 0;
  flow.acknowledged = false;
  if (sum.size >= large_segment) {
    short_wait.begin();
    awaited = &flow;
  }
  if (!flow.fading.linked) fade(flow);  // until it is acknowledged: the client may be gone
}

// Of the MTU; one that leaves no room gives a number that wrapped, which the
// interface would have refused first.
std::uint16_t own_mss(const TunFlow& flow) {
  const std::int64_t mss = std::int64_t{event::tun_options.mtu} -
                           static_cast<std::int64_t>(mss_headers + ip_header(flow.version()));
  return static_cast<std::uint16_t>(std::min<std::int64_t>(mss, max_window));
}

// Room below a segment, or half of what there may be, is not worth telling
// (RFC 9293, 3.8.6.2.2).
bool opens_window(const TunFlow& flow) {
  const std::size_t worth =
      std::max<std::size_t>(1, std::min<std::size_t>(own_mss(flow), receive_limit() / 2));
  return flow.told_window < worth && window_of(flow) >= worth;
}

}  // namespace

void write_packet(Bytes header, const Pieces& payload) {
  const auto part = [](Bytes bytes) {
    return iovec{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = bytes.size()};
  };
  const std::array parts{part(header), part(payload[0]), part(payload[1])};
  const int count = payload[1].empty() ? (payload[0].empty() ? 1 : 2) : 3;
  [[maybe_unused]] const ssize_t written = writev(event::tun_fd, parts.data(), count);
}

void send_ack(TunFlow& flow) { send_segment(flow, {.flags = TcpFlag::ack, .mss = {}}); }

void send_syn_ack(TunFlow& flow) {
  send_segment(flow, {.flags = TcpFlag::syn | TcpFlag::ack, .mss = own_mss(flow)});
  ++flow.next_sent;
}

void send_fin(TunFlow& flow) {
  send_segment(flow, {.flags = TcpFlag::fin | TcpFlag::ack, .mss = {}});
  ++flow.next_sent;
  flow.acknowledged = false;
  flow.set(fin_sent);
  set_unfinished(flow, false);
}

void send_reset(TunFlow& flow) {
  send_segment(flow, {.flags = TcpFlag::rst | TcpFlag::ack, .mss = {}});
}

std::size_t segment_limit(const TunFlow& flow) {
  return std::min<std::size_t>(flow.client_window,
                               flow.version() == ip_v4 ? max_tcp_payload_v4 : max_tcp_payload_v6);
}

void send_payload(TunFlow& flow, const Pieces& payload) {
  send_summed(flow, payload, sum_up(payload));
}

std::size_t send_waiting(TunFlow& flow) {
  const std::size_t count = std::min(flow.unsent.size(), segment_limit(flow));
  if (count == 0) return 0;
  const Pieces payload = flow.unsent.front(count);
  send_summed(flow, payload, flow.next_sum.size == count ? flow.next_sum : sum_up(payload));
  flow.next_sum = {};
  flow.unsent.consume(count);
  if (flow.unsent.empty()) take_back_send_buffer(flow);
  return count;
}

void settle(TunFlow& flow, const TcpSegment& segment) {
  flow.next_sent = segment.acknowledgement;
  flow.client_window = segment.window;
  flow.acknowledged = true;
  if (&flow == awaited) short_wait.end();
}

bool tun_looks_again() { return short_wait.is_on() && short_wait.look_again(monotonic_us()); }

void tell_window(TunFlow& flow) {
  if (!flow.has(ending_flags) && opens_window(flow)) send_ack(flow);
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
