#include "httpmod/cipher.h"

#include <array>
#include <cstddef>

namespace vrox::httpmod {

namespace {

constexpr std::uint8_t low_byte(std::size_t value) { return static_cast<std::uint8_t>(value); }

// The key moves by the same step for every byte, so the keys of neighbouring
// blocks differ by a constant; and because 8 divides the block length, the
// rotation amounts are the same in each block. A rotation is a multiplication
// by a power of two whose upper half is folded back. All this is for the
// compiler, which turns the loops over one block into vector instructions.
constexpr std::size_t block_length = 32;

struct Schedule {
  std::array<std::uint8_t, block_length> keys;
  std::array<std::uint16_t, block_length> factors;  // powers of two

  // `left`: whether the key says how far to the left, else to the right.
  Schedule(std::uint8_t running, std::uint8_t step, bool left) {
    for (std::size_t i = 0; i < block_length; ++i) keys[i] = low_byte(running + i * step);
    for (std::size_t i = 0; i < 8; ++i) {
      const unsigned amount = left ? keys[i] : 8U - keys[i];
      factors[i] = static_cast<std::uint16_t>(1U << (amount & 7U));
    }
    for (std::size_t i = 8; i < block_length; ++i) factors[i] = factors[i - 8];
  }
};

constexpr std::uint8_t fold(std::uint16_t product) { return low_byte(product | product >> 8U); }

constexpr std::uint8_t encode_byte(std::uint8_t byte, std::uint8_t running, std::uint16_t factor,
                                   TunnelKey key) {
  const std::uint8_t mixed = low_byte((byte - key.step_byte)) ^ running;
  const std::uint8_t rotated = fold(static_cast<std::uint16_t>(mixed * factor));
  return low_byte(rotated + running) ^ key.xor_byte;
}

constexpr std::uint8_t decode_byte(std::uint8_t byte, std::uint8_t running, std::uint16_t factor,
                                   TunnelKey key) {
  const std::uint8_t mixed = low_byte((byte ^ key.xor_byte) - running);
  const std::uint8_t rotated = fold(static_cast<std::uint16_t>(mixed * factor));
  return low_byte((rotated ^ running) + key.step_byte);
}

template <auto CodeByte>
std::uint8_t code(std::span<char> bytes, TunnelKey key, std::uint8_t running, bool left) {
  Schedule schedule(running, key.step_byte, left);
  const std::uint8_t stride = low_byte(key.step_byte * block_length);
  std::span<char> rest = bytes;
  while (rest.size() >= block_length) {
    const auto block = rest.first<block_length>();
    for (std::size_t i = 0; i < block_length; ++i) {
      block[i] = static_cast<char>(CodeByte(static_cast<std::uint8_t>(block[i]), schedule.keys[i],
                                            schedule.factors[i], key));
    }
    for (std::uint8_t& next : schedule.keys) next = low_byte(next + stride);
    rest = rest.subspan(block_length);
  }
  for (std::size_t i = 0; i < rest.size(); ++i) {
    rest[i] = static_cast<char>(
        CodeByte(static_cast<std::uint8_t>(rest[i]), schedule.keys[i], schedule.factors[i], key));
  }
  return low_byte(running + static_cast<unsigned>(bytes.size()) * key.step_byte);
}

// RFC 4648 with padding; `text` has the room.
void write_base64(std::string_view bytes, std::span<char> text) {
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::size_t out = 0;
  const auto at = [bytes](std::size_t i) -> unsigned {
    return i < bytes.size() ? static_cast<std::uint8_t>(bytes[i]) : 0U;
  };
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const unsigned group = at(i) << 16U | at(i + 1) << 8U | at(i + 2);
    for (std::size_t digit = 0; digit < 4; ++digit) {
      const bool padding = i + digit > bytes.size();
      text[out++] = padding ? '=' : alphabet[group >> (18U - 6U * digit) & 63U];
    }
  }
}

}  // namespace

TunnelKey derive_tunnel_key(std::string_view password) {
  constexpr std::size_t long_enough = 6;
  const auto n = static_cast<unsigned>(password.size());
  std::uint8_t v = 0;
  for (unsigned i = 0; i < n; ++i) {
    const unsigned ch = static_cast<std::uint8_t>(password[i]);
    v = (ch & 1U) != 0 ? low_byte((i | ch) + v - n) : low_byte((i & ch) | (n * v));
  }
  const bool mixed = n >= long_enough && v != 0;
  return {v, low_byte(mixed ? n * v : n * 16U)};
}

std::uint8_t starting_key(std::time_t now) {
  const auto t = static_cast<std::uint32_t>(now);
  const std::uint32_t high = t >> 3U & 0xF0U;
  const std::uint32_t low = (t >> 14U & 7U) | (t >> 12U & 7U);
  const std::uint32_t add = t >> 7U & t >> 8U & 15U;
  return low_byte((high | low) + add);
}

std::uint8_t tunnel_encode(std::span<char> bytes, TunnelKey key, std::uint8_t running) {
  return code<encode_byte>(bytes, key, running, true);
}

std::uint8_t tunnel_decode(std::span<char> bytes, TunnelKey key, std::uint8_t running) {
  return code<decode_byte>(bytes, key, running, false);
}

bool encode_host_base64(std::string_view host, TunnelKey key, std::uint8_t running,
                        Buffer& encoded) {
  Buffer plain;
  const char last = static_cast<char>(running);
  if (!plain.append(host)) return false;
  (void)tunnel_encode(plain.span(), key, running);
  if (!plain.append({&last, 1})) return false;
  const std::size_t length = (plain.size() + 2) / 3 * 4;
  encoded.clear();
  if (!encoded.reserve(length)) return false;
  write_base64(plain.view(), encoded.spare());
  encoded.commit(length);
  return true;
}

}  // namespace vrox::httpmod
