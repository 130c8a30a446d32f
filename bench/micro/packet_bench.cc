// What every packet of a TUN device passes: checksums, headers read and written.
#include <benchmark/benchmark.h>

#include <vector>

#include "tun/packet.h"

namespace vrox::tun {
namespace {

using Octets = std::vector<std::uint8_t>;

const Route route{.version = ip_v4,
                  .source = {10, 5, 5, 1},
                  .destination = {192, 0, 2, 7},
                  .source_port_be = 1000,
                  .destination_port_be = 443};
const TcpFields fields{
    .sequence = 1, .acknowledgement = 2, .flags = psh | ack, .window = 65535, .mss = {}};

Octets payload_of(const benchmark::State& state) {
  return Octets(static_cast<std::size_t>(state.range(0)), 0x5a);
}

void count_bytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_Checksum(benchmark::State& state) {
  const Octets bytes = payload_of(state);
  for (auto _ : state) benchmark::DoNotOptimize(tun_checksum(bytes));
  count_bytes(state);
}
BENCHMARK(BM_Checksum)->Arg(20)->Arg(1460)->Arg(65495);

void BM_BuildTcp(benchmark::State& state) {
  const Octets payload = payload_of(state);
  HeaderBuffer buffer{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(build_tcp(buffer, route, fields, sum_up({payload, {}})));
  }
  count_bytes(state);
}
BENCHMARK(BM_BuildTcp)->Arg(0)->Arg(1460)->Arg(65495);

void BM_ParseTcp(benchmark::State& state) {
  const Octets payload = payload_of(state);
  HeaderBuffer buffer{};
  const Bytes header = build_tcp(buffer, route, fields, sum_up({payload, {}}));
  Octets packet(header.begin(), header.end());
  packet.insert(packet.end(), payload.begin(), payload.end());
  for (auto _ : state) {
    const auto ip = parse_ip(packet);
    if (!ip || !parse_tcp(*ip)) return state.SkipWithError("not parsed");
  }
}
BENCHMARK(BM_ParseTcp)->Arg(0)->Arg(1460);

}  // namespace
}  // namespace vrox::tun
