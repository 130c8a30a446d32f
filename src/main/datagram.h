// Datagrams in batches: many with one system call each way, every one with the
// addresses that the kernel tells beside its bytes, or that it is answered from.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "main/address.h"

namespace vrox {

constexpr std::size_t max_datagram_batch = 64;

// Room for the packet information of both families, which an IPv6 socket gets with an
// IPv4 datagram, and an original destination.
using ControlBuffer =
    std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo)) +
                                 CMSG_SPACE(sizeof(sockaddr_in6))>;

// The local address of a received datagram, with the port that its socket is known
// to have; for a broadcast the interface's own address. Empty when the kernel did
// not tell.
[[nodiscard]] std::optional<SocketAddress> local_address(const msghdr& header,
                                                         std::uint16_t port_be);
// Where a datagram was sent to before it was redirected to a transparent listener.
[[nodiscard]] std::optional<SocketAddress> original_destination(const msghdr& header);

// Keeps a bound socket from receiving anything further; it can still send. Another
// socket at the same address gets everything from now on.
void stop_receiving(int fd);

// Puts a socket that can only send, bound to the same address, in the place of a
// listener that answers are still sent by: what comes from now on is for others that
// listen there, also where they share the listener itself. False with errno when the
// kernel refuses; nothing has changed then.
[[nodiscard]] bool make_send_only(int fd);

// What recvmmsg() filled: datagrams of up to `Room` bytes, each with `Headroom`
// bytes before it for the caller's own use. Large: in static storage.
template <std::size_t Room, std::size_t Headroom = 0>
class ReceiveBatch {
 public:
  // Reads up to `limit` waiting datagrams in the place of those read before. The
  // number of them; -1 with errno when none waits or the call failed.
  [[nodiscard]] int receive(int fd, std::size_t limit = max_datagram_batch) {
    while (first_armed_ > 0) arm(--first_armed_);
    const auto count = static_cast<unsigned>(std::min(limit, max_datagram_batch));
    const int got = recvmmsg(fd, headers_.data(), count, MSG_DONTWAIT, nullptr);
    if (got > 0) first_armed_ = static_cast<std::size_t>(got);
    return got;
  }

  [[nodiscard]] std::span<const std::uint8_t> payload(std::size_t index) const {
    return std::span(slots_[index].bytes).subspan(Headroom, headers_[index].msg_len);
  }
  // The headroom and the payload behind it.
  [[nodiscard]] std::span<std::uint8_t> with_headroom(std::size_t index) {
    return std::span(slots_[index].bytes).first(Headroom + headers_[index].msg_len);
  }
  // Longer than there is room for: what came is only its beginning.
  [[nodiscard]] bool is_cut(std::size_t index) const {
    return (headers_[index].msg_hdr.msg_flags & MSG_TRUNC) != 0;
  }
  [[nodiscard]] const SocketAddress& sender(std::size_t index) const {
    return slots_[index].sender;
  }
  [[nodiscard]] const msghdr& header(std::size_t index) const { return headers_[index].msg_hdr; }

 private:
  struct Slot {
    SocketAddress sender;
    alignas(cmsghdr) ControlBuffer control;
    std::array<std::uint8_t, Headroom + Room> bytes;
    iovec part;
  };

  void arm(std::size_t index) {
    Slot& slot = slots_[index];
    slot.part = {.iov_base = slot.bytes.data() + Headroom, .iov_len = Room};
    headers_[index] = {};
    msghdr& header = headers_[index].msg_hdr;
    header.msg_name = slot.sender.raw();
    header.msg_namelen = SocketAddress::size;
    header.msg_iov = &slot.part;
    header.msg_iovlen = 1;
    header.msg_control = slot.control.data();
    header.msg_controllen = slot.control.size();
  }

  std::array<mmsghdr, max_datagram_batch> headers_{};
  std::array<Slot, max_datagram_batch> slots_{};
  // recvmmsg() writes to the headers that it fills; from here on they are as it
  // wants them.
  std::size_t first_armed_ = max_datagram_batch;
};

// Datagrams on their way to sendmmsg(). What add() is given must stay until flush().
// One that cannot be sent is lost, like any other.
class SendBatch {
 public:
  // Sends what is held first when it is full or for another socket. Without `from`
  // (null or unspecified) the datagram comes from where its socket is bound.
  void add(int fd, const SocketAddress& to, const SocketAddress* from,
           std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest = {});
  void flush();

 private:
  struct Slot {
    alignas(cmsghdr) ControlBuffer control;
    std::array<iovec, 2> parts;
  };
  std::array<mmsghdr, max_datagram_batch> headers_{};
  std::array<Slot, max_datagram_batch> slots_{};
  std::size_t count_ = 0;
  int fd_ = -1;
};

}  // namespace vrox
