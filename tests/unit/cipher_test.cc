#include "httpmod/cipher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bytes.h"

namespace vrox::httpmod {
namespace {

constexpr std::string_view plain = "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n";

TEST(Cipher, KnownAnswers) {
  const struct {
    const char* why;
    TunnelKey key;
    std::uint8_t running;
    const char* encoded;  // of `plain`
    const char* decoded;  // `plain` deciphered, which exercises the other direction
    std::uint8_t next;
  } cases[] = {
      {"keys from 0: the first byte is rotated by 0",
       {0x00, 0x01},
       0x00,
       "468b47e3a648563163959ae41eb48e12670f9316e656b2479003ef9ea3233dd76c7bce9cf6",
       "482497a1b7de109e45ab44d02f2df2f9293f4b40774e2cd65234903289960cc06e58197f4b",
       0x25},
      {"a step that keeps the low bits of the key",
       {0xff, 0x80},
       0xfe,
       "b39377caadca74d777d6ad8eed8e2544741dbedff0ca3be03a9d7edd3b4dba1d3d85e485e4",
       "940ec87b357b984ac83a35bf31bfad2398b644ca617b0cdafcae38aa0cb304b62c2fa12fa1",
       0x7e},
  };
  for (const auto& c : cases) {
    std::string text(plain);
    EXPECT_EQ(tunnel_encode(text, c.key, c.running), c.next) << c.why;
    EXPECT_EQ(text, from_hex(c.encoded)) << c.why;
    EXPECT_EQ(tunnel_decode(text, c.key, c.running), c.next) << c.why;
    EXPECT_EQ(text, plain) << c.why;
    EXPECT_EQ(tunnel_decode(text, c.key, c.running), c.next) << c.why;
    EXPECT_EQ(text, from_hex(c.decoded)) << c.why;
  }
  EXPECT_EQ(tunnel_encode({}, {1, 2}, 3), 3) << "nothing to encipher keeps the key";
}

std::uint32_t fnv(std::string_view bytes) {
  std::uint32_t hash = 2166136261U;
  for (const char c : bytes) hash = (hash ^ static_cast<std::uint8_t>(c)) * 16777619U;
  return hash;
}

TEST(Cipher, LongTextsInAnyChunks) {
  std::string text(1000, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7 + i / 256);
  const TunnelKey key{0x3c, 0x1d};
  for (const std::size_t chunk : {1U, 7U, 31U, 32U, 33U, 64U, 255U, 999U, 1000U}) {
    std::string encoded = text;
    std::string decoded = text;
    std::uint8_t encode_key = 0xc5;
    std::uint8_t decode_key = 0xc5;
    for (std::size_t at = 0; at < text.size(); at += chunk) {
      const std::size_t length = std::min(chunk, text.size() - at);
      encode_key = tunnel_encode(std::span(encoded).subspan(at, length), key, encode_key);
      decode_key = tunnel_decode(std::span(decoded).subspan(at, length), key, decode_key);
    }
    EXPECT_EQ(fnv(encoded), 0xdf11d444U) << "chunks of " << chunk;
    EXPECT_EQ(fnv(decoded), 0xc513424fU) << "chunks of " << chunk;
    EXPECT_EQ(encode_key, 0x0d) << "chunks of " << chunk;
    EXPECT_EQ(decode_key, 0x0d) << "chunks of " << chunk;
  }
}

TEST(Cipher, KeysFromPasswords) {
  const struct {
    const char* why;
    std::string password;
    TunnelKey key;
  } cases[] = {
      {"no password: off", "", {0, 0}},
      {"odd character", "a", {0x60, 0x10}},
      {"below six characters the step is 16 n", "abcde", {0x32, 0x50}},
      {"xor byte 0 falls back to 16 n", "bbddbb", {0, 0x60}},
      {"which is 0 for 16 characters: off", "pppppppppppppppp", {0, 0}},
      {"characters are unsigned", "\xff\xfe\x80\x81\x82\x83", {0x87, 0x2a}},
      {"longer than a byte counts", std::string(300, 'p'), {0xa0, 0x80}},
  };
  for (const auto& c : cases) {
    const TunnelKey key = derive_tunnel_key(c.password);
    EXPECT_EQ(key.xor_byte, c.key.xor_byte) << c.why;
    EXPECT_EQ(key.step_byte, c.key.step_byte) << c.why;
    EXPECT_EQ(key.on(), c.key.step_byte != 0) << c.why;
  }
}

}  // namespace
}  // namespace vrox::httpmod
