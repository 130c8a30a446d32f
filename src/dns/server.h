// The DNS server: receives queries, answers them from the cache, or looks them
// up under the dnsAcl rules and answers when the upstream has.
//
// A slot of the query table is free -> filled by a datagram, or claimed and
// filled by another service -> looked up -> answered or dropped -> free again at
// the end of the pass. Nothing is said to a client whose query fails, except
// that a lookup which finds no address is answered with a server failure.
#pragma once

#include <cstddef>

#include "dns/query.h"

namespace vrox::dns {

// Start-up, in each process and before any service thread runs: request
// templates, table, epoll set, listener. Ends the process with status 1 when the
// templates cannot be built, or the kernel or memory refuses.
void dns_prepare();

// The body of the DNS thread.
[[noreturn]] void dns_server_thread();

// For other services, on their threads. A claimed slot is filled (message_room()
// and message_length, client, local, reply) and submitted, after which it is the
// DNS loop's, on whose thread `reply` is called. Null when the table is full or
// there is no DNS server.
[[nodiscard]] DnsQuery* claim_query();
void submit_query(DnsQuery& query);

// Ask the DNS loop, from any thread or signal handler: to count idle queries and
// end those that reached the time-out; to take what already waits and stop
// listening.
void dns_sweep();
void dns_drain();
[[nodiscard]] bool dns_drained();
// Not 0 either while a drain has left queries that wait for a slot.
[[nodiscard]] std::size_t dns_open_queries();

// For the exit handler, on whatever thread it runs: has the cache written to its
// file, by the DNS loop while that lives. Gives up on a loop that does not
// respond, so that the process ends in any case.
void dns_save_cache(bool append);

// The DNS loop's own.

// Answers a filled query from the cache, or classifies it and looks it up.
void dns_query_start(DnsQuery& query);
// Closes the upstream and clears the slot.
void dns_query_close(DnsQuery& query);

}  // namespace vrox::dns
