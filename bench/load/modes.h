// The modes of the program. A client prints one JSON object with its Result.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace load {

struct Options {
  sockaddr_in to{};                  // the contender, or the server itself
  sockaddr_in dst{};                 // whom a proxy is asked for
  std::string_view via = "none";     // none, socks or http: how it is asked
  std::size_t conns = 1;             // connections, clients, or queries outstanding
  std::uint64_t count = UINT64_MAX;  // operations, at most
  std::uint64_t names = 1;           // that queries ask for
  double secs = 1;                   // how long; no mode takes longer
  bool upload = false;
  volatile std::uint64_t* uploaded = nullptr;  // the server's count
};

struct Result {
  double secs = 0;
  std::uint64_t done = 0;
  std::uint64_t bytes = 0;
  std::uint64_t errors = 0;
  std::vector<std::uint32_t> trips_ns;
};

[[nodiscard]] Result load_bulk(const Options& options);
[[nodiscard]] Result load_rate(const Options& options);
[[nodiscard]] Result load_trips(const Options& options);
[[nodiscard]] Result load_idle(const Options& options);
[[nodiscard]] Result load_dns(const Options& options);
[[nodiscard]] Result load_udp(const Options& options);

[[noreturn]] void serve(std::uint16_t port, const char* counter);
[[noreturn]] void reflect_dns(std::uint16_t port);

}  // namespace load
