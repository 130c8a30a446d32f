// One packet from the device, of any bytes: sorting it, the UDP parser, and the
// TCP engine without a flow and with one that the packet may belong to.
#include <cstdint>
#include <vector>

#include "tun_link.h"

namespace {

using namespace vrox;
using tun_link::check;

constinit tun::TunFlow* opened = nullptr;

void handle(tun::TunRecord& record) {
  if (record.kind == 1 || record.kind == 0x10) opened = static_cast<tun::TunFlow*>(&record);
}

// What was written must be a packet itself, but for what is odd on purpose: the
// length of a reset over IPv6.
void check_answer(tun::Bytes packet) {
  check(packet.size() >= 28);
  check(tun::parse_ip(packet) || packet[0] >> 4 == 6);
}

void reset(const tun::TunFlow& flow) {
  const tun::Route& back = flow.to_client;
  const tun::Route forth{back.version, back.destination, back.source, back.destination_port_be,
                         back.source_port_be};
  tun::HeaderBuffer buffer;
  tun_link::put(tun::build_tcp(buffer, forth, {.flags = 0x14, .mss = {}}));
  tun_link::pump(check_answer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tun_link::open(handle);
  const std::vector<std::uint8_t> packet(data, data + size);  // exactly as long as it is
  (void)tun::classify(packet);
  event::TunEvent event;
  if (event::tun_parse_udp(tun::udp_datagram, event, packet)) {
    check(event.payload.size() + 28 <= size);
    tun::tun_send_udp(tun::ip_v4, std::span(event.source).first<4>(), event.source_port_be,
                      std::span(event.destination).first<4>(), event.destination_port_be,
                      event.payload);
    tun_link::pump(check_answer);
  }
  opened = nullptr;
  tun_link::put(packet);
  tun_link::put(packet);  // belongs to the flow that the first one opened, if any
  tun_link::pump(check_answer);
  if (opened != nullptr) reset(*opened);
  check(tun::tun_flow_count() == 0);
  return 0;
}
