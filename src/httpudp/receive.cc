#include "httpudp/receive.h"

#include "httpudp/global.h"

namespace vrox::httpudp {

namespace {

// What the relay takes from SOCKS5 clients is sent on as it is.
std::size_t head_for_relay(ListenerBatch& batch, std::size_t index, Datagram& datagram) {
  const Bytes payload = batch.payload(index);
  if (!has_relay_header(payload) || is_fragment(payload)) return 0;
  const auto local = local_address(batch.header(index), global.relay_port_be);
  if (local) datagram.local = *local;
  const auto room = batch.with_headroom(index).first<max_frame_head>();
  return write_frame_head(room, nullptr, payload.size());
}

std::size_t head_for_transparent(ListenerBatch& batch, std::size_t index) {
  auto destination = original_destination(batch.header(index));
  if (!destination) return 0;
  destination->normalise();
  const auto room = batch.with_headroom(index).first<max_frame_head>();
  return write_frame_head(room, &*destination, batch.payload(index).size());
}

}  // namespace

std::optional<Datagram> framed(ListenerBatch& batch, std::size_t index, Origin origin) {
  if (batch.is_cut(index)) return std::nullopt;
  Datagram datagram;
  datagram.origin = origin;
  datagram.client = batch.sender(index);
  const std::size_t head = origin == Origin::relay ? head_for_relay(batch, index, datagram)
                                                   : head_for_transparent(batch, index);
  if (head == 0) return std::nullopt;
  datagram.frame = batch.with_headroom(index).subspan(max_frame_head - head);
  return datagram;
}

}  // namespace vrox::httpudp
