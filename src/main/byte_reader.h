// Walks untrusted bytes front to back. A read past the end gives zeroes and
// sets the failure mark, so a parser reads its fields and asks once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vrox {

class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> bytes) : rest_(bytes) {}

  std::span<const std::uint8_t> take(std::size_t count) {
    if (count > rest_.size()) {  // not "position + count > size": that sum can wrap
      failed_ = true;
      rest_ = {};
      return {};
    }
    const auto head = rest_.first(count);
    rest_ = rest_.subspan(count);
    return head;
  }
  std::uint8_t u8() {
    const auto byte = take(1);
    return byte.empty() ? std::uint8_t{0} : byte[0];
  }
  std::uint16_t be16() {
    const unsigned high = u8();  // two statements: operands have no fixed order
    return static_cast<std::uint16_t>(high << 8 | u8());
  }

  [[nodiscard]] bool ok() const { return !failed_; }
  [[nodiscard]] std::size_t left() const { return rest_.size(); }

 private:
  std::span<const std::uint8_t> rest_;
  bool failed_ = false;
};

}  // namespace vrox
