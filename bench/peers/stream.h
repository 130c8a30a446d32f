// Bytes that describe themselves: each stream follows from its number, so both of
// its ends know what must come, at every place, without keeping anything.
#pragma once

#include <array>
#include <optional>

#include "peers/async.h"

namespace peers {

enum class End : std::uint8_t {
  ok,     // all that was due came, and nothing else
  cut,    // a peer behaved badly on purpose; what came was right
  lost,   // ended before all had come
  stuck,  // nothing moved for longer than anybody should wait
  wrong,  // other bytes than were due
};
constexpr std::size_t end_kinds = 5;

enum class Manner : std::uint8_t {
  polite,
  slow,        // little pieces, with pauses
  silent,      // a long pause in the middle
  reset,       // RST in the middle
  close,       // gone in the middle
  half_close,  // the client: no more input after its own, while output still comes
};
constexpr unsigned manner_kinds = 6;

std::uint64_t mix(std::uint64_t value);
std::uint64_t random_number();
void seed_random(std::uint64_t seed);
// Below `bound`.
inline std::uint32_t random_below(std::uint32_t bound) {
  return static_cast<std::uint32_t>(random_number() % bound);
}

// No byte is a letter: a piece is never taken for the beginning of a request.
void fill_pattern(std::uint64_t seed, std::uint64_t offset, std::span<std::uint8_t> bytes);
bool is_pattern(std::uint64_t seed, std::uint64_t offset, Bytes bytes);

// The tunnel cipher, and the running keys of one connection's far end.
struct Keys {
  bool on = false;
  std::uint8_t in = 0;
  std::uint8_t out = 0;
};
extern const std::string_view password;
void decipher(std::span<std::uint8_t> bytes, std::uint8_t key);
void encipher(std::span<std::uint8_t> bytes, std::uint8_t key);
void advance(std::uint8_t& key, std::size_t count);
std::uint8_t starting_key(std::int64_t seconds);
std::string decode_base64(std::string_view text);

// What a client tells the far end of a connection to do, in its first bytes.
struct Order {
  std::uint64_t id = 0;
  std::uint32_t up = 0;
  std::uint32_t down = 0;
  Manner far = Manner::polite;
  bool far_closes = false;  // the first of the two
};
constexpr std::size_t order_size = 32;
std::array<std::uint8_t, order_size> write_order(const Order& order);
std::optional<Order> read_order(const std::array<std::uint8_t, order_size>& bytes);

struct Flow {
  std::uint64_t seed = 0;
  std::uint32_t size = 0;
  std::uint32_t done = 0;
  [[nodiscard]] std::uint32_t left() const { return size - done; }
};
inline Flow upward(const Order& order) { return {order.id, order.up, 0}; }
inline Flow downward(const Order& order) { return {~order.id, order.down, 0}; }

struct Totals {
  std::uint64_t connections = 0;
  std::uint64_t bytes = 0;  // checked
  std::array<std::uint64_t, end_kinds> ends{};
  std::uint64_t open = 0;
};
extern Totals totals;
extern std::int64_t patience_ms;           // how long nothing may move before it counts as stuck
extern std::int64_t datagram_patience_ms;  // how long an answer is waited for

// Both directions at once, to the end of both.
Task<End> duplex(Socket& socket, Keys& keys, Flow& out, Flow& in, Manner manner);
// The end of the stream, and nothing before it.
Task<End> expect_end(Socket& socket);

}  // namespace peers
