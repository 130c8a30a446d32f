// The dns::Global section. Written while the configuration is read, read-only
// afterwards.
#pragma once

#include <atomic>
#include <cstdint>

namespace vrox::dns {

struct Global {
  int listen_fd = -1;
  std::int32_t max_sessions = 1024;
  const char* cache_path = nullptr;  // null: no cache file
  // Of all workers: not 0 once one has begun to save. Null when the kernel refused.
  std::atomic<std::uint64_t>* cache_saves = nullptr;
  std::uint8_t cache_limit = 0;  // the low byte of the number: 256 is stored as 0
  std::int32_t timeout = 0;      // in passes of the sweeper
};

extern Global global;

}  // namespace vrox::dns
