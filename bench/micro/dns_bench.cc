// DNS messages, and the cache at the sizes it grows to.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "dns/cache.h"
#include "dns/message.h"
#include "dns/question.h"

namespace vrox::dns {
namespace {

using Message = std::vector<std::uint8_t>;

Message query_for(const std::string& name) {
  Message message(max_message);
  message.resize(encode_query(message, 1, name, type_a));
  if (message.empty()) std::abort();
  return message;
}

// Owner names are pointers to the question, as servers write them.
Message answer_to(Message message, std::int64_t records) {
  static constexpr std::array<std::uint8_t, 16> record{0xc0, 12, 0, 1, 0,   1, 0, 0,
                                                       14,   16, 0, 4, 192, 0, 2, 1};
  message[2] = 0x81;
  message[3] = 0x80;
  message[7] = static_cast<std::uint8_t>(records);
  for (std::int64_t i = 0; i < records; ++i) {
    message.insert(message.end(), record.begin(), record.end());
  }
  return message;
}

void BM_EncodeQuery(benchmark::State& state) {
  std::array<std::uint8_t, max_message> message{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(encode_query(message, 7, "a-host.some.example.com", type_a));
  }
}
BENCHMARK(BM_EncodeQuery);

void BM_DecodeAnswer(benchmark::State& state) {
  const Message answer = answer_to(query_for("a-host.some.example.com"), state.range(0));
  std::vector<ResolvedAddress> addresses;
  for (auto _ : state) {
    addresses.clear();
    if (decode_answer(answer, type_a, addresses) != state.range(0)) {
      return state.SkipWithError("not decoded");
    }
  }
}
BENCHMARK(BM_DecodeAnswer)->Arg(1)->Arg(16);

void BM_ReadQuestion(benchmark::State& state) {
  const Message query = query_for("a-host.some.example.com");
  for (auto _ : state) benchmark::DoNotOptimize(read_question(query));
}
BENCHMARK(BM_ReadQuestion);

// Every name in turn, so that the records come from memory as they do in service.
void BM_CacheLookup(benchmark::State& state) {
  std::vector<Message> queries;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    queries.push_back(query_for("host" + std::to_string(i) + ".example.net"));
    if (!dns_cache_lookup(queries.back())) {
      dns_cache_store(queries.back(), answer_to(queries.back(), 1), 0);
    }
  }
  std::size_t next = 0;
  for (auto _ : state) {
    if (!dns_cache_lookup(queries[next])) return state.SkipWithError("not in the cache");
    next = next + 1 == queries.size() ? 0 : next + 1;
  }
}
BENCHMARK(BM_CacheLookup)->RangeMultiplier(10)->Range(10, 100'000);

}  // namespace
}  // namespace vrox::dns
