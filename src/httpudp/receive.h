// Datagrams of the two listeners: many with one system call, framed where they lie.
#pragma once

#include <cstddef>
#include <optional>

#include "httpudp/client.h"
#include "main/datagram.h"

namespace vrox::httpudp {

// A payload behind the largest head is at most as long as its length can say; with
// IPv6 the last few bytes of what UDP can carry do not fit.
constexpr std::size_t max_payload = 65524;

using ListenerBatch = ReceiveBatch<max_payload, max_frame_head>;

// A datagram of the batch, ready for a tunnel; a view of the batch. Empty when it is
// too long for a frame, when it came from a SOCKS5 client without a whole header or
// as a fragment, or when the kernel does not tell where it was going.
[[nodiscard]] std::optional<Datagram> framed(ListenerBatch& batch, std::size_t index,
                                             Origin origin);

}  // namespace vrox::httpudp
