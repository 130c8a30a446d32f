// From the TUN device to the services: its TCP flows become sessions of the TCP
// proxy, its DNS queries go to the DNS server, and its other datagrams into the
// tunnels of httpUDP. Runs on the TCP proxy's thread.
#pragma once

#include "tun/flow.h"

namespace vrox::tun {

// Told of every flow that needs attention and of every packet that is no TCP: a
// TunFlow or an event::TunEvent, by its first byte. What nobody serves, and what
// no slot is free for, is dropped; a flow is closed.
void tun_packet_handler(TunRecord& record);

}  // namespace vrox::tun
