// The flows of the device: found by their client's port, with the memory that they
// borrow, and in the order in which they go when they are silent or too many.
#pragma once

#include <cstddef>
#include <cstdint>

#include "main/address.h"
#include "tun/flow_record.h"

namespace vrox::tun {

// The destination is not part of a flow's name, intended: a client port is one
// flow, wherever it goes.
struct FlowName {
  std::uint8_t version = 0;
  Address client{};
  std::uint16_t port_be = 0;
};

[[nodiscard]] bool is_named(const TunFlow& flow, const FlowName& name);
// Null when there is none.
[[nodiscard]] TunFlow* find_flow(const FlowName& name);

// A half-open flow, which fades from now on. Want of memory is an impossible
// condition.
[[nodiscard]] TunFlow& open_flow(const Route& to_client);
void free_flow(TunFlow& flow);

// Closed, and with something to send: what a graceful stop waits for.
void set_unfinished(TunFlow& flow, bool unfinished);

// ---- silence --------------------------------------------------------------------

// The flow goes when it is silent for too long from now on.
void fade(TunFlow& flow);
void stop_fading(TunFlow& flow);
// Null when none fades.
[[nodiscard]] TunFlow* longest_silent_flow();

// The one to go when too many fade, or when closed flows hold too much memory. Null:
// none has to.
[[nodiscard]] TunFlow* surplus_fading_flow();
[[nodiscard]] TunFlow* surplus_lingering_flow();

// ---- memory ---------------------------------------------------------------------

// What a flow may hold of each, in bytes.
[[nodiscard]] std::size_t receive_limit();
[[nodiscard]] std::size_t send_limit();

// Nothing when it has one.
void lend_receive_buffer(TunFlow& flow);
void lend_send_buffer(TunFlow& flow);
// With whatever is in it.
void take_back_receive_buffer(TunFlow& flow);
void take_back_send_buffer(TunFlow& flow);

}  // namespace vrox::tun
