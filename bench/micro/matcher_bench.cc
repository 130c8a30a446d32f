// Choosing a rule: what each connection costs when it is accepted, and what each
// first request costs, by the number of rules before the one that matches.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "acl/match.h"
#include "config/key_table.h"
#include "httpmod/request.h"
#include "tcp/global.h"

namespace vrox::acl {
namespace {

constexpr std::string_view request =
    "GET /index.html HTTP/1.1\r\nHost: www.example.com\r\nUser-Agent: Mozilla/5.0 (X11; Linux "
    "x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\r\nAccept: text/html\r\n\r\n";

// Rules are never freed; neither are their texts.
void add_condition(Rule& rule, std::string_view key, std::string_view value) {
  if (apply_rule_key(key, *new std::string(value), rule) != config::KeyResult::applied) {
    std::abort();
  }
}

// `count` rules on an address, a port, or a pattern; only the last one matches.
List<Rule> rules(std::int64_t count, std::string_view key, std::string_view miss,
                 std::string_view hit) {
  List<Rule> list;
  for (std::int64_t i = 0; i < count; ++i) {
    Rule* rule = new_rule(tcp::global, "bench");
    if (rule == nullptr) std::abort();
    add_condition(*rule, key, i + 1 == count ? hit : miss);
    list.push_back(rule);
  }
  return list;
}

Subject subject() {
  return {.client = parse_address("192.0.2.9", 1)->uniform(),
          .destination = parse_address("198.51.100.7", 443)->uniform(),
          .port = 443,
          .has_upstream = false,
          .method = httpmod::method_code(request),
          .request = request};
}

void BM_AtConnect(benchmark::State& state, const char* key, const char* miss, const char* hit) {
  const List<Rule> list = rules(state.range(0), key, miss, hit);
  const Subject about = subject();
  for (auto _ : state) benchmark::DoNotOptimize(match_at_connect(about, list.head));
}
BENCHMARK_CAPTURE(BM_AtConnect, port, "dst_port", "80", "443")->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(BM_AtConnect, network, "dst_ip", "10.0.0.0/8", "198.51.100.0/24")
    ->RangeMultiplier(10)
    ->Range(1, 1000);

void BM_OnRequest(benchmark::State& state, const char* key, const char* miss, const char* hit) {
  const List<Rule> list = rules(state.range(0), key, miss, hit);
  const Subject about = subject();
  for (auto _ : state) benchmark::DoNotOptimize(match_on_request(about, list.head));
}
BENCHMARK_CAPTURE(BM_OnRequest, method, "method", "POST", "GET")->Range(1, 1000);
BENCHMARK_CAPTURE(BM_OnRequest, uri, "uri", "^/news/", "^/index")->Range(1, 1000);
BENCHMARK_CAPTURE(BM_OnRequest, host, "hdr_key(Host)", "\\.example\\.org$", "\\.example\\.com$")
    ->Range(1, 1000);

}  // namespace
}  // namespace vrox::acl
