// The tunnel cipher: a byte stream cipher shared with the far end of a tunnel,
// which must decode byte for byte what is encoded here. In place, without
// framing; the running key is carried from chunk to chunk, one per direction.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string_view>

#include "main/buffer.h"

namespace vrox::httpmod {

// Derived from a password while the configuration is read.
struct TunnelKey {
  std::uint8_t xor_byte = 0;
  std::uint8_t step_byte = 0;  // 0: the cipher is off

  [[nodiscard]] bool on() const { return step_byte != 0; }
};

// A password may come out with a step byte of 0 (for one, when it is empty),
// which silently switches the cipher off; both ends agree on that.
[[nodiscard]] TunnelKey derive_tunnel_key(std::string_view password);

// The running key, of both directions, with which an exchange begins at `now`.
[[nodiscard]] std::uint8_t starting_key(std::time_t now);

// Encipher and decipher in place; the result is the running key of the next chunk.
[[nodiscard]] std::uint8_t tunnel_encode(std::span<char> bytes, TunnelKey key,
                                         std::uint8_t running);
[[nodiscard]] std::uint8_t tunnel_decode(std::span<char> bytes, TunnelKey key,
                                         std::uint8_t running);

// The host enciphered from `running` on, with that key byte behind it, in
// base64 (RFC 4648 with padding): the far end can read it without shared state.
// False when memory is short.
[[nodiscard]] bool encode_host_base64(std::string_view host, TunnelKey key, std::uint8_t running,
                                      Buffer& encoded);

}  // namespace vrox::httpmod
