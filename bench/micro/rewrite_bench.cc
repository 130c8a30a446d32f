// Rewriting of request heads of 64 KiB in which a directive matches 1,000 times,
// and of many small requests behind one another.
#include <benchmark/benchmark.h>

#include <string>

#include "httpmod/modify.h"

namespace vrox::httpmod {
namespace {

HttpModModule& module_of(std::string_view key, std::string_view value) {
  HttpModModule& module = new_module("bench");
  if (!apply_directive(key, value, module)) std::abort();
  return module;
}

std::string head_of_64k() {
  std::string head = "GET /path HTTP/1.1\r\n";
  for (int i = 0; i < 1000; ++i) head += "X-Line: " + std::string(54, 'v') + "\r\n";
  return head + "\r\n";
}

void rewrite(benchmark::State& state, const std::string& request, HttpModModule& module) {
  const SocketAddress nowhere;
  Buffer buffer;
  for (auto _ : state) {
    if (!buffer.assign(request) || !modify_request({buffer, 1, nowhere, 0, 0}, module, {})) {
      state.SkipWithError("not rewritten");
      return;
    }
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(request.size()));
}

void BM_Rewrite(benchmark::State& state, const char* key, const char* value) {
  rewrite(state, head_of_64k(), module_of(key, value));
}
BENCHMARK_CAPTURE(BM_Rewrite, del_line, "del_line", "X-Line");
BENCHMARK_CAPTURE(BM_Rewrite, strrep_longer, "strrep", "X-Line -> X-Longer-Line");
BENCHMARK_CAPTURE(BM_Rewrite, strrep_shorter, "strrep", "X-Line -> X");
BENCHMARK_CAPTURE(BM_Rewrite, regrep, "regrep", "x-line -> X-Longer-Line");
BENCHMARK_CAPTURE(BM_Rewrite, regrep_class, "regrep", "x-[a-z]+: -> Y: ");
BENCHMARK_CAPTURE(BM_Rewrite, regrep_groups, "regrep", "x-(l[a-z]+): -> Y-\\1: ");
BENCHMARK_CAPTURE(BM_Rewrite, set_first, "set_first", "[M] [U] [V]\r\n");

void BM_Pipelined(benchmark::State& state) {
  HttpModModule& module = module_of("set_first", "[M] http://[H][U] [V]\r\n");
  module.modify_all_request = true;
  std::string requests;
  while (requests.size() < (1U << 20U)) requests += "GET /a HTTP/1.1\r\nHost: a.b\r\n\r\n";
  rewrite(state, requests, module);
}
BENCHMARK(BM_Pipelined)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vrox::httpmod
