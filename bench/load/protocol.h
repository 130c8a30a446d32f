// What a client asks of the server: every connection begins with one request of
// 64 bytes. Its first byte is no letter, so that no proxy takes it for HTTP.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace load {

enum class Operation : char {
  none = 0,
  download = 'D',  // the server sends without end
  upload = 'U',    // the server takes everything, and counts it
  echo = 'E',      // the server sends back the request and all that follows
  reply = 'R',     // the server sends back the request
};

struct Request {
  char magic = 1;
  Operation operation = Operation::none;
  std::array<char, 62> padding{};

  [[nodiscard]] std::string_view bytes() const { return {&magic, sizeof(Request)}; }
};
static_assert(sizeof(Request) == 64);

// Bulk data moves in pieces of this size. What arrives is dropped inside the
// kernel (MSG_TRUNC): the ends should cost as little as they can.
constexpr std::size_t chunk_size = std::size_t{256} * 1024;

}  // namespace load
