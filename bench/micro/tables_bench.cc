// The tables that connections live in, at the sizes they grow to: indexes keyed by
// what peers choose, slots, and rings from which the least used is picked.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "main/hash_index.h"
#include "main/list.h"
#include "main/slot_table.h"

namespace vrox {
namespace {

struct Element {
  std::array<std::uint8_t, 20> key{};  // an address, a port, an origin
  Element* bucket_next = nullptr;
};

void BM_HashIndexFind(benchmark::State& state) {
  std::vector<Element> elements(static_cast<std::size_t>(state.range(0)));
  static HashIndex<Element> index;  // is never freed: one for all runs
  if (!index.allocate(elements.size())) std::abort();
  for (std::size_t i = 0; i < elements.size(); ++i) {
    std::memcpy(elements[i].key.data(), &i, sizeof i);
    index.insert(elements[i]);
  }
  std::size_t next = 0;
  for (auto _ : state) {
    if (index.find(elements[next].key) == nullptr) return state.SkipWithError("not found");
    next = next + 1 == elements.size() ? 0 : next + 1;
  }
}
BENCHMARK(BM_HashIndexFind)->RangeMultiplier(10)->Range(10, 100'000);

struct Slot {
  std::array<std::uint8_t, 64> session{};
};

// A slot taken and given back while all below it are in use.
void BM_SlotClaimRelease(benchmark::State& state) {
  static SlotTable<Slot> table;  // likewise
  const auto in_use = static_cast<std::size_t>(state.range(0));
  if (!table.allocate(in_use + 64)) std::abort();
  for (std::size_t i = 0; i < in_use; ++i) {
    if (table.claim() == nullptr) std::abort();
  }
  for (auto _ : state) {
    Slot* slot = table.claim();
    benchmark::DoNotOptimize(slot);
    table.release(*slot);
  }
}
BENCHMARK(BM_SlotClaimRelease)->RangeMultiplier(10)->Range(10, 10'000);

struct Way {
  Way* next = nullptr;
  std::int32_t use_count = 0;
};

void BM_PickLeastUsed(benchmark::State& state) {
  std::vector<Way> ways(static_cast<std::size_t>(state.range(0)));
  List<Way> list;
  for (Way& way : ways) list.push_back(&way);
  Ring<Way> ring = close_ring(list);
  for (auto _ : state) {
    pick_least_used(ring, [](Way& way) -> std::int32_t& { return way.use_count; }).use_count--;
  }
}
BENCHMARK(BM_PickLeastUsed)->RangeMultiplier(10)->Range(1, 100);

}  // namespace
}  // namespace vrox
