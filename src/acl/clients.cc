#include "acl/clients.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vrox::acl {

namespace {

constexpr std::size_t first_buckets = 16;

// Multiplies the address's halves into well mixed high bits. A client could only
// choose its own address, and the number of addresses is what is limited.
std::size_t hash(const Address& address) {
  std::uint64_t halves[2];
  std::memcpy(halves, address.data(), sizeof halves);
  const std::uint64_t mixed = (halves[0] * 0x9e3779b97f4a7c15U) ^ (halves[1] * 0xc2b2ae3d27d4eb4fU);
  return static_cast<std::size_t>(mixed ^ (mixed >> 32));
}

}  // namespace

ClientIpEntry*& ClientTable::bucket_of(const Address& client) const {
  return buckets_[hash(client) & (bucket_count_ - 1)];
}

bool ClientTable::make_room() {
  if (static_cast<std::size_t>(clients_) < bucket_count_) return true;
  const std::size_t count = std::max(first_buckets, bucket_count_ * 2);
  auto* buckets = new (std::nothrow) ClientIpEntry* [count] {};
  if (buckets == nullptr) return bucket_count_ != 0;  // fuller buckets will do
  ClientIpEntry** old = buckets_;
  const std::size_t old_count = bucket_count_;
  buckets_ = buckets;
  bucket_count_ = count;
  for (std::size_t i = 0; i < old_count; ++i) {
    while (ClientIpEntry* entry = old[i]) {
      old[i] = entry->next;
      ClientIpEntry*& bucket = bucket_of(entry->address);
      entry->next = bucket;
      bucket = entry;
    }
  }
  delete[] old;
  return true;
}

bool ClientTable::admit(const Address& client, std::int32_t max_clients,
                        std::int32_t max_sessions) {
  if (max_sessions < 1 || !make_room()) return false;
  ClientIpEntry*& bucket = bucket_of(client);
  for (ClientIpEntry* entry = bucket; entry != nullptr; entry = entry->next) {
    if (entry->address != client) continue;
    if (entry->sessions >= max_sessions) return false;
    ++entry->sessions;
    return true;
  }
  if (clients_ >= max_clients) return false;
  auto* entry = new (std::nothrow) ClientIpEntry{.next = bucket, .address = client, .sessions = 1};
  if (entry == nullptr) return false;
  bucket = entry;
  ++clients_;
  return true;
}

void ClientTable::release(const Address& client) {
  if (bucket_count_ == 0) return;
  for (ClientIpEntry** link = &bucket_of(client); *link != nullptr; link = &(*link)->next) {
    ClientIpEntry* entry = *link;
    if (entry->address != client) continue;
    if (--entry->sessions < 1) {
      *link = entry->next;
      delete entry;
      --clients_;
    }
    return;
  }
}

}  // namespace vrox::acl
