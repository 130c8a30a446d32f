// What the cipher does to bytes, its fuzz target compares with the definition.
#include "httpmod/cipher.h"

#include <gtest/gtest.h>

#include <string>

namespace vrox::httpmod {
namespace {

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
