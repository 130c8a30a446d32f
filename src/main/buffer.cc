#include "main/buffer.h"

#include <algorithm>
#include <cstring>

namespace vrox {

namespace {
constexpr std::size_t size_limit = UINT32_MAX - 1;
}

bool Buffer::reserve(std::size_t extra) {
  if (extra > size_limit - size_) return false;
  const std::size_t needed = size_ + extra;
  if (data_ != nullptr && needed <= capacity_) return true;
  // By halves, so that a text that grows in small steps is not copied each time.
  const std::size_t grown = std::min(size_limit, capacity_ + std::size_t{capacity_} / 2);
  const std::size_t wanted = std::max(needed, grown);
  auto* moved = static_cast<char*>(std::realloc(data_, wanted + 1));
  if (moved == nullptr) return false;
  data_ = moved;
  capacity_ = static_cast<std::uint32_t>(wanted);
  data_[size_] = '\0';
  return true;
}

bool Buffer::append(std::string_view bytes) {
  if (!reserve(bytes.size())) return false;
  if (!bytes.empty()) std::memcpy(data_ + size_, bytes.data(), bytes.size());
  commit(bytes.size());
  return true;
}

void Buffer::erase_front(std::size_t count) {
  if (count == 0) return;
  std::memmove(data_, data_ + count, size_ - count);
  truncate(size_ - count);
}

bool Buffer::splice(std::size_t offset, std::size_t count, std::string_view with) {
  if (with.size() > count && !reserve(with.size() - count)) return false;
  if (data_ == nullptr) return true;
  const std::size_t tail = size_ - offset - count;
  if (with.size() != count) {
    std::memmove(data_ + offset + with.size(), data_ + offset + count, tail);
  }
  if (!with.empty()) std::memcpy(data_ + offset, with.data(), with.size());
  truncate(offset + with.size() + tail);
  return true;
}

}  // namespace vrox
