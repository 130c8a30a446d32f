// How fast bytes of a tunnel are enciphered: every one of them passes here.
#include <benchmark/benchmark.h>

#include <string>

#include "httpmod/cipher.h"

namespace vrox::httpmod {
namespace {

using Coder = std::uint8_t (*)(std::span<char>, TunnelKey, std::uint8_t);

void BM_Cipher(benchmark::State& state, Coder code) {
  std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
  const TunnelKey key{0x5A, 0x93};
  std::uint8_t running = 7;
  for (auto _ : state) {
    running = code(bytes, key, running);
    benchmark::DoNotOptimize(bytes.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(BM_Cipher, encode, tunnel_encode)->Arg(31)->Arg(512)->Arg(20480);
BENCHMARK_CAPTURE(BM_Cipher, decode, tunnel_decode)->Arg(31)->Arg(512)->Arg(20480);

}  // namespace
}  // namespace vrox::httpmod
