// The client addresses that hold sessions under a rule with `limit_client_ip`.
// A rule's table is the TCP loop's alone; trivially destructible, because rules
// live as long as the process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "main/address.h"

namespace vrox::acl {

struct ClientIpEntry {
  ClientIpEntry* next = nullptr;  // in its bucket, newest first
  Address address{};
  std::int32_t sessions = 0;
};

class ClientTable {
 public:
  // Counts one more session of the client. False when it holds `max_sessions`
  // already, when it would be one address more than `max_clients`, or when memory
  // is short.
  [[nodiscard]] bool admit(const Address& client, std::int32_t max_clients,
                           std::int32_t max_sessions);
  // Gives back one admitted session; the address leaves with its last.
  void release(const Address& client);

 private:
  [[nodiscard]] ClientIpEntry*& bucket_of(const Address& client) const;
  [[nodiscard]] bool make_room();

  ClientIpEntry** buckets_ = nullptr;
  std::size_t bucket_count_ = 0;  // a power of two
  std::int32_t clients_ = 0;
};

}  // namespace vrox::acl
