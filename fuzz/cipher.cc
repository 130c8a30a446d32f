// The tunnel cipher against its definition byte by byte, cut at any place.
// Input: xor byte, step byte, running key, length of the first chunk, text.
#include "httpmod/cipher.h"
#include "check.h"

#include <bit>
#include <string>

using vrox::fuzz::check;

namespace {

using vrox::httpmod::TunnelKey;

std::string encode_slowly(std::string text, TunnelKey key, std::uint8_t running) {
  for (char& c : text) {
    const auto t =
        static_cast<std::uint8_t>((static_cast<std::uint8_t>(c) - key.step_byte) ^ running);
    c = static_cast<char>((std::rotl(t, running & 7) + running) ^ key.xor_byte);
    running = static_cast<std::uint8_t>(running + key.step_byte);
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const TunnelKey key{data[0], data[1]};
  const std::uint8_t running = data[2];
  const std::string plain(data + 4, data + size);
  const std::size_t cut = std::min<std::size_t>(data[3], plain.size());

  std::string text = plain;
  const std::span<char> bytes(text);
  const std::uint8_t middle = tunnel_encode(bytes.first(cut), key, running);
  const std::uint8_t end = tunnel_encode(bytes.subspan(cut), key, middle);
  check(text == encode_slowly(plain, key, running));
  check(tunnel_decode(bytes.first(cut), key, running) == middle);
  check(tunnel_decode(bytes.subspan(cut), key, middle) == end);
  check(text == plain);

  vrox::Buffer encoded;
  check(encode_host_base64(plain, key, running, encoded));
  check(encoded.size() == (plain.size() + 1 + 2) / 3 * 4);
  (void)vrox::httpmod::derive_tunnel_key(plain);
  return 0;
}
