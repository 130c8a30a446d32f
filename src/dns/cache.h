// Replies kept from upstream, keyed by the query's bytes without its identifier,
// newest first, and the file that carries them over a restart.
//
// Life: dns_cache_load while the configuration is read, dns_cache_lookup and
// dns_cache_store while serving, dns_cache_save on exit, which empties the list.
// Owned by the configuration reader first, then by the DNS thread, which also
// runs the save while it lives; the main thread may save itself only when no DNS
// thread was started.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vrox::dns {

// Reads the file, creating an empty one when there is none. False, reported as
// "fopen()" or "malloc()", when that fails. Reading ends without a message at
// the first record that is cut or exceeds the file's limits; of several records
// with one query the last in the file stays.
[[nodiscard]] bool dns_cache_load(const char* path);

// The newest reply to the same query, carrying the identifier of this one; it
// stays valid until the next store or save. `query` is a whole message.
[[nodiscard]] std::optional<std::span<const std::uint8_t>> dns_cache_lookup(
    std::span<const std::uint8_t> query);

// Keeps a reply and drops the older part of the list when it holds `limit`
// records already; 0: no limit. Without memory, or when a length cannot be told
// in 16 bits, the reply is not kept.
void dns_cache_store(std::span<const std::uint8_t> query, std::span<const std::uint8_t> reply,
                     std::uint8_t limit);

// Writes the records that keep to the file's limits, newest first, and empties
// the list. A process that has a worker behind it appends, and waits for that
// child's end before it calls, so that the child's records stand first in the
// file. Failures are reported as "fopen()" or "fwrite()".
void dns_cache_save(const char* path, bool append);

[[nodiscard]] std::size_t dns_cache_count();

}  // namespace vrox::dns
