// A growable byte text on the heap that reports want of memory instead of
// throwing: what waits for a slow peer, a request being gathered, a message
// under construction. Always followed by a terminating zero byte that its size
// does not count, so that it can be handed to the C library's text functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <utility>

namespace vrox {

class Buffer {
 public:
  Buffer() = default;
  Buffer(Buffer&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    if (this != &other) {
      std::free(data_);
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
      capacity_ = std::exchange(other.capacity_, 0);
    }
    return *this;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { std::free(data_); }

  // Makes room for `extra` more bytes behind the end (and the terminator).
  // False when memory is short; the text is unchanged then.
  [[nodiscard]] bool reserve(std::size_t extra);
  // `bytes` may not lie inside this buffer.
  [[nodiscard]] bool append(std::string_view bytes);
  [[nodiscard]] bool assign(std::string_view bytes) {
    clear();
    return append(bytes);
  }

  // The reserved room behind the end; commit() takes over what was written there.
  [[nodiscard]] std::span<char> spare() {
    return data_ == nullptr ? std::span<char>{} : std::span(data_ + size_, capacity_ - size_);
  }
  void commit(std::size_t written) { truncate(size_ + written); }

  void truncate(std::size_t size) {
    if (data_ == nullptr) return;
    size_ = static_cast<std::uint32_t>(size);
    data_[size_] = '\0';
  }
  void erase_front(std::size_t count);
  // Replaces `count` bytes at `offset` by `with`, which may not lie inside this
  // buffer. False when memory is short; the text is unchanged then.
  [[nodiscard]] bool splice(std::size_t offset, std::size_t count, std::string_view with);
  void clear() { truncate(0); }       // keeps the memory
  void reset() { *this = Buffer(); }  // gives it back

  [[nodiscard]] char* data() { return data_; }
  [[nodiscard]] const char* c_str() const { return data_ == nullptr ? "" : data_; }
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] std::string_view view() const { return {c_str(), size_}; }
  [[nodiscard]] std::span<char> span() { return {data_, size_}; }

 private:
  char* data_ = nullptr;
  std::uint32_t size_ = 0;      // without the terminator
  std::uint32_t capacity_ = 0;  // likewise: capacity_ + 1 bytes are allocated
};

}  // namespace vrox
