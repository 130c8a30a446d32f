// Where packets are read from the device: the header of each packet lies over the
// end of the payload that came before it, so that the payloads of one connection
// come to lie side by side without being moved. Once the header is parsed, what it
// covered is put back. A payload of another connection stays where it is as well.
// A packet moves away only if it is handed out whole, or lies under what is put back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "event/device.h"
#include "tun/packet.h"

namespace vrox::event {

class PacketBuffer {
 public:
  // For packets up to `packet_size`, behind up to `gathered_size` bytes where those begin
  // in the buffer's first packet; behind a later one it gathers less.
  void open(std::size_t packet_size, std::size_t gathered_size) {
    const std::size_t size = packet_size + gathered_size + packet_size;
    memory_ = {static_cast<std::uint8_t*>(tun_allocate(size)), size};
    aside_ = static_cast<std::uint8_t*>(tun_allocate(packet_size));
    packet_size_ = packet_size;
  }

  // While nothing waits.
  [[nodiscard]] std::span<std::uint8_t> room() {
    covered_size_ = 0;
    packet_ = memory_.first(packet_size_);
    return packet_;
  }

  // Whether a packet fits behind `gathered`, which lies in this buffer.
  [[nodiscard]] bool has_room_behind(tun::Bytes gathered) const {
    return end_of(gathered) + packet_size_ <= memory_.size();
  }

  // For one whose payload is to follow `gathered`, behind headers without options.
  [[nodiscard]] std::span<std::uint8_t> room_behind(tun::Bytes gathered, std::uint8_t version) {
    covered_size_ = tun::ip_header(version) + tun::tcp_header;
    packet_ = memory_.subspan(end_of(gathered) - covered_size_, packet_size_);
    std::memcpy(covered_.data(), packet_.data(), covered_size_);
    return packet_;
  }

  // Whether putting back would spoil the payload: its header is a shorter one.
  [[nodiscard]] bool overlaps(tun::Bytes payload) const {
    return !payload.empty() &&
           static_cast<std::size_t>(payload.data() - packet_.data()) < covered_size_;
  }

  // Of the packet, only its payload is still needed.
  void put_back() { std::memcpy(packet_.data(), covered_.data(), covered_size_); }

  // The packet is needed whole. Where it is then, until another one moves there.
  [[nodiscard]] tun::Bytes move_away(std::size_t length) {
    std::memcpy(aside_, packet_.data(), length);
    put_back();
    return {aside_, length};
  }

 private:
  [[nodiscard]] std::size_t end_of(tun::Bytes gathered) const {
    return static_cast<std::size_t>(gathered.data() - memory_.data()) + gathered.size();
  }

  std::span<std::uint8_t> memory_;
  std::uint8_t* aside_ = nullptr;
  std::size_t packet_size_ = 0;
  std::span<std::uint8_t> packet_;
  std::array<std::uint8_t, tun::ipv6_header + tun::tcp_header> covered_{};
  std::size_t covered_size_ = 0;
};

}  // namespace vrox::event
