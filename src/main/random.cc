#include "main/random.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace vrox {

namespace {

struct HashKey {
  std::uint64_t low;
  std::uint64_t high;
};

const HashKey& hash_key() {
  static const HashKey key = [] {
    std::array<std::uint8_t, sizeof(HashKey)> bytes{};
    fill_random(bytes);
    return std::bit_cast<HashKey>(bytes);
  }();
  return key;
}

// The clock's nanoseconds, stirred. Old kernels only.
void fill_from_clock(std::span<std::uint8_t> bytes) {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  auto state = static_cast<std::uint64_t>(now.tv_nsec) << 32 ^
               static_cast<std::uint64_t>(now.tv_sec) ^ static_cast<std::uint64_t>(getpid()) << 20;
  for (std::uint8_t& byte : bytes) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    byte = static_cast<std::uint8_t>(state >> 56);
  }
}

class SipState {
 public:
  explicit SipState(const HashKey& key)
      : v0_(key.low ^ 0x736f6d6570736575U),
        v1_(key.high ^ 0x646f72616e646f6dU),
        v2_(key.low ^ 0x6c7967656e657261U),
        v3_(key.high ^ 0x7465646279746573U) {}

  void word(std::uint64_t word) {
    v3_ ^= word;
    round();
    v0_ ^= word;
  }
  [[nodiscard]] std::uint64_t finish() {
    v2_ ^= 0xff;
    for (int i = 0; i < 3; ++i) round();
    return v0_ ^ v1_ ^ v2_ ^ v3_;
  }

 private:
  void round() {
    v0_ += v1_;
    v1_ = std::rotl(v1_, 13) ^ v0_;
    v0_ = std::rotl(v0_, 32);
    v2_ += v3_;
    v3_ = std::rotl(v3_, 16) ^ v2_;
    v0_ += v3_;
    v3_ = std::rotl(v3_, 21) ^ v0_;
    v2_ += v1_;
    v1_ = std::rotl(v1_, 17) ^ v2_;
    v2_ = std::rotl(v2_, 32);
  }

  std::uint64_t v0_, v1_, v2_, v3_;
};

}  // namespace

void fill_random(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    // Not the library's function: older bionic has none.
    const long got = syscall(SYS_getrandom, bytes.data(), bytes.size(), 0U);
    if (got == -1 && errno == EINTR) continue;
    if (got <= 0) return fill_from_clock(bytes);
    bytes = bytes.subspan(static_cast<std::size_t>(got));
  }
}

std::uint64_t keyed_hash(std::span<const std::uint8_t> bytes) {
  SipState state(hash_key());
  const auto length = static_cast<std::uint64_t>(bytes.size());
  std::uint64_t word = 0;
  for (; bytes.size() >= sizeof word; bytes = bytes.subspan(sizeof word)) {
    std::memcpy(&word, bytes.data(), sizeof word);
    state.word(word);
  }
  word = 0;
  if (!bytes.empty()) std::memcpy(&word, bytes.data(), bytes.size());
  state.word(word | length << 56);
  return state.finish();
}

}  // namespace vrox
