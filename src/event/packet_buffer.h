// Where packets are read from the device: the header of each packet lies over the
// end of the payload that came before it, so that the payloads of one connection
// come to lie side by side without being moved. What the header covered is put
// back when the packet belongs there; otherwise the packet moves away.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "event/device.h"
#include "tun/packet.h"

namespace vrox::event {

class PacketBuffer {
 public:
  // For packets up to `packet_size` behind up to `gathered_size` bytes, which begin
  // anywhere in the first packet: it may have options, or repeat what is known.
  void open(std::size_t packet_size, std::size_t gathered_size) {
    for (std::uint8_t*& memory : memory_) {
      memory = static_cast<std::uint8_t*>(tun_allocate(packet_size + gathered_size + packet_size));
    }
    packet_size_ = packet_size;
  }

  // For a packet of a connection that nothing waits for.
  [[nodiscard]] std::span<std::uint8_t> room() {
    covered_size_ = 0;
    packet_ = {memory_[0], packet_size_};
    return packet_;
  }

  // For one whose payload is to follow `gathered`, behind headers without options.
  [[nodiscard]] std::span<std::uint8_t> room_behind(tun::Bytes gathered, std::uint8_t version) {
    covered_size_ = tun::ip_header(version) + tun::tcp_header;
    const std::size_t end =
        static_cast<std::size_t>(gathered.data() - memory_[0]) + gathered.size();
    packet_ = {memory_[0] + end - covered_size_, packet_size_};
    std::memcpy(covered_.data(), packet_.data(), covered_size_);
    return packet_;
  }

  // The packet's payload belongs there.
  void put_back() { std::memcpy(packet_.data(), covered_.data(), covered_size_); }

  // It does not: the packet moves to where nothing is gathered.
  [[nodiscard]] tun::Bytes move_away(std::size_t length) {
    std::swap(memory_[0], memory_[1]);
    std::memcpy(memory_[0], packet_.data(), length);
    put_back();
    return {memory_[0], length};
  }

 private:
  std::array<std::uint8_t*, 2> memory_{};  // in use, and the other one
  std::size_t packet_size_ = 0;
  std::span<std::uint8_t> packet_;
  std::array<std::uint8_t, tun::ipv6_header + tun::tcp_header> covered_{};
  std::size_t covered_size_ = 0;
};

}  // namespace vrox::event
