// A queue of bytes in a fixed piece of memory, which comes and goes: most
// connections need none most of the time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "tun/packet.h"

namespace vrox::tun {

class ByteRing {
 public:
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] bool has_memory() const { return !memory_.empty(); }

  void attach(std::span<std::uint8_t> memory) { memory_ = memory; }
  // What attach() was given; the queue is empty then, and has no memory.
  [[nodiscard]] std::span<std::uint8_t> detach() {
    head_ = size_ = 0;
    return std::exchange(memory_, {});
  }

  // `bytes` must fit behind what is there.
  void append(Bytes bytes) {
    if (bytes.empty()) return;
    const std::size_t at = wrapped(head_ + size_);
    const std::size_t first = std::min(bytes.size(), memory_.size() - at);
    std::memcpy(memory_.data() + at, bytes.data(), first);
    if (first != bytes.size()) {
      std::memcpy(memory_.data(), bytes.data() + first, bytes.size() - first);
    }
    size_ += bytes.size();
  }

  // The first `count` bytes, of which there must be so many.
  [[nodiscard]] Pieces front(std::size_t count) const {
    const std::size_t first = std::min(count, memory_.size() - head_);
    const Bytes all = memory_;
    return {all.subspan(head_, first), all.first(count - first)};
  }

  void consume(std::size_t count) {
    size_ -= count;
    head_ = size_ == 0 ? 0 : wrapped(head_ + count);
  }

 private:
  [[nodiscard]] std::size_t wrapped(std::size_t at) const {
    return at < memory_.size() ? at : at - memory_.size();
  }

  std::span<std::uint8_t> memory_;
  std::size_t head_ = 0;
  std::size_t size_ = 0;
};

}  // namespace vrox::tun
