// The ordered list is what the file and the limit go by; the hash index only
// finds a record. In a bucket the newest record stands first, as in the list, so
// that of two records with one query the newer one answers.
#include "dns/cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "main/helpers.h"
#include "main/random.h"

namespace vrox::dns {

namespace {

constexpr std::size_t id_size = 2;
constexpr std::size_t length_size = 2;  // in the file; in the machine's byte order
// A record of the file keeps below these.
constexpr std::size_t query_bound = 515;
constexpr std::size_t content_bound = 1025;  // of query and reply together

constexpr mode_t file_mode = 0666;
constexpr std::size_t first_buckets = 256;

using Bytes = std::span<const std::uint8_t>;

// One heap block: this head, the query without its identifier, the reply.
struct DnsCacheRecord {
  DnsCacheRecord* newer = nullptr;
  DnsCacheRecord* older = nullptr;
  DnsCacheRecord* next_in_bucket = nullptr;
  std::uint64_t hash = 0;  // of the query
  std::uint16_t query_length = 0;
  std::uint16_t reply_length = 0;

  [[nodiscard]] std::uint8_t* content() { return reinterpret_cast<std::uint8_t*>(this + 1); }
  [[nodiscard]] Bytes query() { return {content(), query_length}; }
  [[nodiscard]] std::span<std::uint8_t> reply() {
    return std::span(content(), std::size_t{query_length} + reply_length).subspan(query_length);
  }
  [[nodiscard]] bool fits_file() const {
    return query_length < query_bound && query_length + reply_length < int{content_bound};
  }
};

struct DnsCache {
  DnsCacheRecord* newest = nullptr;
  DnsCacheRecord* oldest = nullptr;
  DnsCacheRecord** buckets = nullptr;
  std::size_t bucket_count = 0;  // a power of two, or 0 before the first record
  std::size_t count = 0;
};

constinit DnsCache dns_cache;

DnsCacheRecord*& bucket_of(std::uint64_t hash) {
  return dns_cache.buckets[hash & (dns_cache.bucket_count - 1)];
}

// Doubles the index when it is as full as it has buckets. Without memory the
// chains grow longer instead; false only when there is no index at all.
bool grow_index() {
  if (dns_cache.count < dns_cache.bucket_count) return true;
  const std::size_t wanted = std::max(first_buckets, dns_cache.bucket_count * 2);
  auto** buckets = new (std::nothrow) DnsCacheRecord* [wanted] {};
  if (buckets == nullptr) return dns_cache.bucket_count != 0;
  delete[] dns_cache.buckets;
  dns_cache.buckets = buckets;
  dns_cache.bucket_count = wanted;
  for (DnsCacheRecord* record = dns_cache.oldest; record != nullptr; record = record->newer) {
    DnsCacheRecord*& bucket = bucket_of(record->hash);
    record->next_in_bucket = bucket;
    bucket = record;
  }
  return true;
}

// The first of a bucket's records from `record` on that has the query.
DnsCacheRecord* find_from(DnsCacheRecord* record, Bytes query, std::uint64_t hash) {
  while (record != nullptr &&
         (record->hash != hash || !std::ranges::equal(record->query(), query))) {
    record = record->next_in_bucket;
  }
  return record;
}

DnsCacheRecord* find(Bytes query, std::uint64_t hash) {
  return dns_cache.bucket_count == 0 ? nullptr : find_from(bucket_of(hash), query, hash);
}

// At the head of the list. False when memory is short or the lengths do not fit.
bool push(Bytes query, Bytes reply, std::uint64_t hash) {
  constexpr std::size_t longest = std::numeric_limits<std::uint16_t>::max();
  if (query.size() > longest || reply.size() > longest || !grow_index()) return false;
  void* block = std::malloc(sizeof(DnsCacheRecord) + query.size() + reply.size());
  if (block == nullptr) return false;
  auto* record = new (block) DnsCacheRecord;
  record->hash = hash;
  record->query_length = static_cast<std::uint16_t>(query.size());
  record->reply_length = static_cast<std::uint16_t>(reply.size());
  std::ranges::copy(query, record->content());
  std::ranges::copy(reply, record->reply().begin());

  record->older = dns_cache.newest;
  (dns_cache.newest == nullptr ? dns_cache.oldest : dns_cache.newest->newer) = record;
  dns_cache.newest = record;
  DnsCacheRecord*& bucket = bucket_of(hash);
  record->next_in_bucket = bucket;
  bucket = record;
  ++dns_cache.count;
  return true;
}

void remove(DnsCacheRecord& record) {
  (record.newer == nullptr ? dns_cache.newest : record.newer->older) = record.older;
  (record.older == nullptr ? dns_cache.oldest : record.older->newer) = record.newer;
  DnsCacheRecord** link = &bucket_of(record.hash);
  while (*link != &record) link = &(*link)->next_in_bucket;
  *link = record.next_in_bucket;
  --dns_cache.count;
  std::free(&record);
}

struct FileRecord {
  Bytes query;
  Bytes reply;
  std::size_t size = 0;
};

std::size_t length_at(Bytes bytes) {
  std::uint16_t length = 0;
  std::memcpy(&length, bytes.data(), length_size);
  return length;
}

// The record at the front; empty when it is cut or exceeds the limits.
std::optional<FileRecord> read_record(Bytes bytes) {
  if (bytes.size() < length_size) return std::nullopt;
  const std::size_t query_length = length_at(bytes);
  const std::size_t reply_at = length_size + query_length + length_size;
  if (query_length >= query_bound || bytes.size() < reply_at) return std::nullopt;
  const std::size_t reply_length = length_at(bytes.subspan(length_size + query_length));
  if (query_length + reply_length >= content_bound) return std::nullopt;
  if (bytes.size() < reply_at + reply_length) return std::nullopt;
  return FileRecord{.query = bytes.subspan(length_size, query_length),
                    .reply = bytes.subspan(reply_at, reply_length),
                    .size = reply_at + reply_length};
}

bool write_record(DnsCacheRecord& record, FILE* file) {
  std::array<std::uint8_t, content_bound + 2 * length_size> bytes{};
  std::span<std::uint8_t> to(bytes);
  const auto put = [&to](Bytes part) {
    std::ranges::copy(part, to.begin());
    to = to.subspan(part.size());
  };
  const auto put_length = [&put](std::uint16_t length) {
    std::array<std::uint8_t, length_size> two{};
    std::memcpy(two.data(), &length, length_size);
    put(two);
  };
  put_length(record.query_length);
  put(record.query());
  put_length(record.reply_length);
  put(record.reply());
  const std::size_t size = bytes.size() - to.size();
  return std::fwrite(bytes.data(), 1, size, file) == size;
}

// Any process of the system may take the file over after a change of user.
bool create_empty(const char* path) {
  FILE* file = std::fopen(path, "w");
  if (file == nullptr) {
    std::perror("fopen()");
    return false;
  }
  (void)chmod(path, file_mode);
  (void)std::fclose(file);
  return true;
}

// Of many replies to one query, asked again before the first was answered, the newest
// is given out and the oldest is the one that a load of the file keeps. Without a limit
// nothing else would ever free those between.
void drop_between(DnsCacheRecord* record) {
  if (record == nullptr) return;
  if (find_from(record->next_in_bucket, record->query(), record->hash) != nullptr) remove(*record);
}

}  // namespace

bool dns_cache_load(const char* path) {
  if (access(path, F_OK) != 0) return create_empty(path);
  const std::optional<Buffer> file = read_whole_file(path);
  if (!file) return false;
  const std::string_view text = file->view();
  Bytes rest(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  while (const std::optional<FileRecord> record = read_record(rest)) {
    const std::uint64_t hash = keyed_hash(record->query);
    DnsCacheRecord* earlier = find(record->query, hash);
    if (!push(record->query, record->reply, hash)) {
      std::perror("malloc()");
      return false;
    }
    if (earlier != nullptr) remove(*earlier);
    rest = rest.subspan(record->size);
  }
  (void)chmod(path, file_mode);
  return true;
}

std::optional<Bytes> dns_cache_lookup(Bytes query) {
  if (query.size() < id_size) return std::nullopt;
  const Bytes key = query.subspan(id_size);
  DnsCacheRecord* record = find(key, keyed_hash(key));
  // A file may hold a reply that has no room for the identifier.
  if (record == nullptr || record->reply_length < id_size) return std::nullopt;
  const std::span<std::uint8_t> reply = record->reply();
  std::ranges::copy(query.first(id_size), reply.begin());
  return reply;
}

void dns_cache_store(Bytes query, Bytes reply, std::uint8_t limit) {
  if (query.size() < id_size) return;
  const Bytes key = query.subspan(id_size);
  const std::uint64_t hash = keyed_hash(key);
  const std::size_t before = dns_cache.count;
  DnsCacheRecord* earlier = find(key, hash);
  if (!push(key, reply, hash)) return;
  if (limit == 0) return drop_between(earlier);
  if (before < limit) return;
  const std::size_t kept = limit / std::size_t{2} + 1;
  while (dns_cache.count > kept) remove(*dns_cache.oldest);
}

void dns_cache_save(const char* path, bool append) {
  FILE* file = std::fopen(path, append ? "a" : "w");
  if (file == nullptr) return std::perror("fopen()");
  bool written = true;
  while (dns_cache.newest != nullptr) {
    // One record beyond the limits would end the next load, for all behind it too.
    DnsCacheRecord& record = *dns_cache.newest;
    if (written && record.fits_file()) written = write_record(record, file);
    remove(record);
  }
  if (std::fclose(file) != 0 || !written) std::perror("fwrite()");
}

std::size_t dns_cache_count() { return dns_cache.count; }

}  // namespace vrox::dns
