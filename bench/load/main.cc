// Traffic generator of the benchmarks: one process serves, another one loads.
//
//   load server PORT COUNTER    answers what the other modes ask, on all addresses
//   load reflect PORT           answers every DNS query with one A record
//   load MODE to=ADDRESS:PORT [dst=ADDRESS:PORT] [via=none|socks|http] [conns=N]
//        [count=N] [names=N] [secs=S] [upload=1] [counter=COUNTER]
//
// MODE  bulk    `conns` streams for S seconds, downloads or uploads
//       rate    short connections: one request and one reply of 64 bytes each
//       trips   64 bytes there and back on each of `conns` connections
//       idle    `conns` connections, held until standard input ends
//       dns     queries for `names` names in turn, `conns` of them outstanding
//       udp     64 bytes there and back from `conns` clients of a SOCKS5 UDP relay
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "modes.h"
#include "net.h"

namespace load {
namespace {

template <class Number>
Number number(std::string_view text) {
  Number value{};
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc{}) {
    std::fprintf(stderr, "no number: %.*s\n", static_cast<int>(text.size()), text.data());
    std::exit(2);
  }
  return value;
}

struct OptionKey {
  std::string_view name;
  void (*set)(Options& options, const char* value);
};
constexpr OptionKey option_keys[] = {
    {"to", [](Options& o, const char* v) { o.to = parse_address(v); }},
    {"dst", [](Options& o, const char* v) { o.dst = parse_address(v); }},
    {"via", [](Options& o, const char* v) { o.via = v; }},
    {"conns", [](Options& o, const char* v) { o.conns = number<std::size_t>(v); }},
    {"count", [](Options& o, const char* v) { o.count = number<std::uint64_t>(v); }},
    {"names", [](Options& o, const char* v) { o.names = number<std::uint64_t>(v); }},
    {"secs", [](Options& o, const char* v) { o.secs = number<double>(v); }},
    {"upload", [](Options& o, const char* v) { o.upload = *v == '1'; }},
    {"counter", [](Options& o, const char* v) { o.uploaded = map_counter(v); }},
};

struct Mode {
  std::string_view name;
  Result (*load)(const Options& options);
};
constexpr Mode modes[] = {
    {"bulk", load_bulk}, {"rate", load_rate}, {"trips", load_trips},
    {"idle", load_idle}, {"dns", load_dns},   {"udp", load_udp},
};

[[noreturn]] void usage(const char* what) {
  std::fprintf(stderr, "load: %s; main.cc tells how it is called\n", what);
  std::exit(2);
}

Options parse_options(std::span<char*> arguments) {
  Options options;
  for (char* argument : arguments) {
    char* const sign = std::strchr(argument, '=');
    if (sign == nullptr) usage(argument);
    const std::string_view name(argument, static_cast<std::size_t>(sign - argument));
    const auto* key = std::ranges::find(option_keys, name, &OptionKey::name);
    if (key == std::end(option_keys)) usage(argument);
    key->set(options, sign + 1);
  }
  return options;
}

double quantile_us(const std::vector<std::uint32_t>& sorted, double q) {
  if (sorted.empty()) return 0;
  return sorted[static_cast<std::size_t>(q * static_cast<double>(sorted.size() - 1))] / 1e3;
}

void print(Result& result) {
  std::ranges::sort(result.trips_ns);
  std::printf(
      "{\"secs\": %.6f, \"done\": %llu, \"bytes\": %llu, \"errors\": %llu, \"p50_us\": %.2f, "
      "\"p99_us\": %.2f, \"cpu\": %.4f}\n",
      result.secs, static_cast<unsigned long long>(result.done),
      static_cast<unsigned long long>(result.bytes), static_cast<unsigned long long>(result.errors),
      quantile_us(result.trips_ns, .5), quantile_us(result.trips_ns, .99), cpu_seconds());
  (void)std::fflush(stdout);
}

void run(std::span<char*> arguments) {
  if (arguments.size() < 3) usage("too few arguments");
  const std::string_view mode = arguments[1];
  raise_descriptor_limit();
  if (mode == "server" && arguments.size() == 4) {
    serve(number<std::uint16_t>(arguments[2]), arguments[3]);
  }
  if (mode == "reflect") reflect_dns(number<std::uint16_t>(arguments[2]));
  const auto* found = std::ranges::find(modes, mode, &Mode::name);
  if (found == std::end(modes)) usage(arguments[1]);
  Result result = found->load(parse_options(arguments.subspan(2)));
  print(result);
  // Idle connections last as long as whoever started this wants them.
  char ignored = 0;
  while (mode == "idle" && read(STDIN_FILENO, &ignored, 1) > 0) {
  }
}

}  // namespace
}  // namespace load

int main(int argc, char** argv) {
  load::run({argv, static_cast<std::size_t>(argc)});
  return 0;
}
