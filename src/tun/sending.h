// What is sent to the clients of the device. Each packet is one write.
#pragma once

#include <cstddef>

#include "tun/flow_record.h"
#include "tun/packet.h"

namespace vrox::tun {

constexpr std::size_t max_window = 65535;  // what a header can tell
// From here on a payload is the work; below, the packet is.
constexpr std::size_t large_segment = max_window / 2;

// A packet that the device refuses is lost, and its connection stalls until the
// client gives it up.
void write_packet(Bytes header, const Pieces& payload = {});

void send_ack(TunFlow& flow);
void send_syn_ack(TunFlow& flow);
void send_fin(TunFlow& flow);
// Nothing of the flow changes.
void send_reset(TunFlow& flow);

// The most that may be sent now; 0 while something is outstanding.
[[nodiscard]] std::size_t segment_limit(const TunFlow& flow);
// At most that, and something.
void send_payload(TunFlow& flow, const Pieces& payload);
// As much as may be sent of what waits. The bytes that were sent.
std::size_t send_waiting(TunFlow& flow);
// Takes over number and window of a segment that acknowledges everything.
void settle(TunFlow& flow, const TcpSegment& segment);

// After a read: a client that was told of no room is told when there is some.
void tell_window(TunFlow& flow);

}  // namespace vrox::tun
