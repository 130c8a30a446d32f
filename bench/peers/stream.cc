#include "peers/stream.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace peers {

const std::string_view password = "a fairly long password";
Totals totals;
std::int64_t patience_ms = 20'000;
std::int64_t datagram_patience_ms = 3000;

namespace {

std::uint64_t random_state = 1;
std::array<std::uint8_t, 65536> scratch{};

constexpr std::uint64_t high_bits = 0x8080808080808080U;

struct Steps {
  std::uint8_t mask = 0;
  std::uint8_t step = 0;
};

Steps derive_steps() {
  const std::size_t n = password.size();
  std::size_t v = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const auto ch = static_cast<std::uint8_t>(password[i]);
    v = ((ch & 1) != 0 ? (i | ch) + v - n : (i & ch) | (n * v)) & 0xff;
  }
  return {static_cast<std::uint8_t>(v),
          static_cast<std::uint8_t>(n >= 6 && v != 0 ? n * v : n * 16)};
}
const Steps steps = derive_steps();

std::uint8_t byte(unsigned value) { return static_cast<std::uint8_t>(value); }

std::uint64_t checksum(const Order& order) {
  return mix(order.id ^ mix(std::uint64_t{order.up} << 32 | order.down) ^
             mix(static_cast<std::uint64_t>(order.far) * 2 + (order.far_closes ? 1 : 0)));
}

std::size_t piece_of(Manner manner, std::uint32_t left) {
  const std::size_t most = manner == Manner::slow ? 1 + random_below(3000) : scratch.size();
  return std::min<std::size_t>(most, left);
}

enum class Moved : std::uint8_t { some, nothing, end };

Moved send_some(Socket& socket, Keys& keys, Flow& out, Manner manner) {
  if (out.left() == 0) return Moved::nothing;
  const std::span piece = std::span(scratch).first(piece_of(manner, out.left()));
  fill_pattern(out.seed, out.done, piece);
  if (keys.on) encipher(piece, keys.out);
  const ssize_t sent = send(socket.fd(), piece.data(), piece.size(), MSG_NOSIGNAL);
  if (sent < 1) return errno == EAGAIN ? Moved::nothing : Moved::end;
  out.done += static_cast<std::uint32_t>(sent);
  if (keys.on) advance(keys.out, static_cast<std::size_t>(sent));
  return Moved::some;
}

// `right` becomes false at the first wrong byte.
Moved receive_some(Socket& socket, Keys& keys, Flow& in, Manner manner, bool& right) {
  if (in.left() == 0) return Moved::nothing;
  const std::span room = std::span(scratch).first(piece_of(manner, in.left()));
  const ssize_t got = recv(socket.fd(), room.data(), room.size(), 0);
  if (got < 1) return got == -1 && errno == EAGAIN ? Moved::nothing : Moved::end;
  const std::span piece = room.first(static_cast<std::size_t>(got));
  if (keys.on) {
    decipher(piece, keys.in);
    advance(keys.in, piece.size());
  }
  right = is_pattern(in.seed, in.done, piece);
  if (!right) {
    std::fprintf(stderr, "wrong bytes at %u of %u (stream %016llx)\n", in.done, in.size,
                 static_cast<unsigned long long>(in.seed));
  }
  in.done += static_cast<std::uint32_t>(got);
  totals.bytes += static_cast<std::uint64_t>(got);
  return Moved::some;
}

}  // namespace

std::uint64_t mix(std::uint64_t value) {  // splitmix64
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9U;
  value = (value ^ value >> 27) * 0x94d049bb133111ebU;
  return value ^ value >> 31;
}

std::uint64_t random_number() { return mix(random_state++); }
void seed_random(std::uint64_t seed) { random_state = mix(seed); }

void fill_pattern(std::uint64_t seed, std::uint64_t offset, std::span<std::uint8_t> bytes) {
  constexpr std::size_t word = sizeof(std::uint64_t);
  while (!bytes.empty()) {
    const std::uint64_t value = mix(seed + offset / word) | high_bits;
    const std::size_t skip = offset % word;
    const std::size_t count = std::min(word - skip, bytes.size());
    std::memcpy(bytes.data(), reinterpret_cast<const std::uint8_t*>(&value) + skip, count);
    bytes = bytes.subspan(count);
    offset += count;
  }
}

bool is_pattern(std::uint64_t seed, std::uint64_t offset, Bytes bytes) {
  static std::array<std::uint8_t, 65536> due{};
  const std::span expected = std::span(due).first(bytes.size());
  fill_pattern(seed, offset, expected);
  return std::ranges::equal(expected, bytes);
}

void encipher(std::span<std::uint8_t> bytes, std::uint8_t key) {
  for (std::uint8_t& b : bytes) {
    const unsigned t = byte(b - steps.step) ^ key;
    const unsigned n = key & 7;
    b = byte(byte((t << n | t >> (8 - n)) + key) ^ steps.mask);
    key = byte(key + steps.step);
  }
}

void decipher(std::span<std::uint8_t> bytes, std::uint8_t key) {
  for (std::uint8_t& b : bytes) {
    const unsigned t = byte((b ^ steps.mask) - key);
    const unsigned n = key & 7;
    b = byte(byte((t >> n | t << (8 - n)) ^ key) + steps.step);
    key = byte(key + steps.step);
  }
}

void advance(std::uint8_t& key, std::size_t count) {
  key = static_cast<std::uint8_t>(key + count * steps.step);
}

std::uint8_t starting_key(std::int64_t seconds) {
  const auto t = static_cast<std::uint32_t>(seconds);
  const unsigned high = (t >> 3) & 0xf0;
  const unsigned low = ((t >> 14) & 7) | ((t >> 12) & 7);
  return byte((high | low) + ((t >> 7) & (t >> 8) & 15));
}

std::string decode_base64(std::string_view text) {
  constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    const std::size_t digit = digits.find(c);
    if (digit == std::string_view::npos) break;
    bits = bits << 6 | static_cast<unsigned>(digit);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    result.push_back(static_cast<char>(bits >> count & 0xff));
  }
  return result;
}

std::array<std::uint8_t, order_size> write_order(const Order& order) {
  std::array<std::uint8_t, order_size> bytes{1, byte(static_cast<unsigned>(order.far)),
                                             byte(order.far_closes ? 1 : 0)};
  const std::uint64_t check = checksum(order);
  std::memcpy(&bytes[4], &order.up, 4);
  std::memcpy(&bytes[8], &order.down, 4);
  std::memcpy(&bytes[12], &order.id, 8);
  std::memcpy(&bytes[20], &check, 8);
  return bytes;
}

std::optional<Order> read_order(const std::array<std::uint8_t, order_size>& bytes) {
  Order order{.far = static_cast<Manner>(bytes[1]), .far_closes = bytes[2] == 1};
  std::uint64_t check = 0;
  std::memcpy(&order.up, &bytes[4], 4);
  std::memcpy(&order.down, &bytes[8], 4);
  std::memcpy(&order.id, &bytes[12], 8);
  std::memcpy(&check, &bytes[20], 8);
  if (bytes[0] != 1 || bytes[1] >= manner_kinds || check != checksum(order)) return std::nullopt;
  return order;
}

Task<End> duplex(Socket& socket, Keys& keys, Flow& out, Flow& in, Manner manner) {
  const std::uint32_t turn = random_below(out.size + in.size + 1);  // of bad manners
  bool right = true;
  bool paused = false;
  for (;;) {
    const Moved sent = send_some(socket, keys, out, manner);
    const Moved got = receive_some(socket, keys, in, manner, right);
    if (!right) co_return End::wrong;
    if (out.left() == 0 && in.left() == 0) co_return End::ok;
    if (got == Moved::end || (sent == Moved::end && got == Moved::nothing)) co_return End::lost;
    if (out.done + in.done >= turn) {
      if (manner == Manner::reset || manner == Manner::close) co_return End::cut;
      if (manner == Manner::silent && !std::exchange(paused, true)) {
        co_await pause_ms(200 + random_below(3000));
      }
    }
    if (manner == Manner::half_close && out.left() == 0 && !std::exchange(paused, true)) {
      (void)shutdown(socket.fd(), SHUT_WR);
    }
    if (manner == Manner::slow) co_await pause_ms(random_below(20));
    if (sent != Moved::nothing || got != Moved::nothing) continue;
    if (!co_await socket.event(patience_ms)) co_return End::stuck;
  }
}

Task<End> expect_end(Socket& socket) {
  std::array<std::uint8_t, 64> more{};
  for (;;) {
    const ssize_t got = recv(socket.fd(), more.data(), more.size(), 0);
    if (got == 0) co_return End::ok;
    if (got > 0) {
      std::fprintf(stderr, "%zd bytes behind the end\n", got);
      co_return End::wrong;
    }
    if (errno != EAGAIN) co_return End::lost;
    if (!co_await socket.event(patience_ms)) co_return End::stuck;
  }
}

}  // namespace peers
