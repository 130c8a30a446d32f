// The DNS cache file: what is read from a damaged one can be saved and read again.
#include <cstdint>
#include <span>

#include "dns/cache.h"
#include "memory_file.h"

using vrox::fuzz::check;
using vrox::fuzz::MemoryFile;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file;
  const MemoryFile copy;
  file.fill(data, size);
  check(vrox::dns::dns_cache_load(file.path()));
  const std::size_t records = vrox::dns::dns_cache_count();
  const std::span<const std::uint8_t> bytes(data, size);
  (void)vrox::dns::dns_cache_lookup(bytes);
  if (size >= 2) {  // the first record's query with a length for an identifier
    const std::size_t length = data[0] + (std::size_t{data[1]} << 8U);
    if (length + 2 <= size) (void)vrox::dns::dns_cache_lookup(bytes.first(length + 2));
  }
  vrox::dns::dns_cache_save(copy.path(), false);
  check(vrox::dns::dns_cache_load(copy.path()) && vrox::dns::dns_cache_count() == records);
  vrox::dns::dns_cache_save("/dev/null", false);
  return 0;
}
