#include "dns/server.h"

#include <regex.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>

#include "dns/cache.h"
#include "dns/global.h"
#include "dns/lookup.h"
#include "dns/question.h"
#include "dns/template.h"
#include "httpmod/replica.h"
#include "main/clock.h"
#include "main/datagram.h"
#include "main/listener.h"
#include "main/services.h"
#include "main/slot_table.h"

namespace vrox::dns {

namespace {

using Bytes = std::span<const std::uint8_t>;
using OpenList = LinkedList<DnsQuery, &DnsQuery::open>;

constexpr std::uint64_t slot_mark = std::uint64_t{1} << 32;  // above every descriptor's number
constexpr int batches_per_pass = 8;
constexpr std::size_t most_when_draining = 4096;  // a busy listener is never found empty
constexpr std::size_t id_size = 2;

// How long an HTTP answer may pause before it counts as complete when its length is
// not told, or does not come, and the server keeps the connection open.
constexpr int settle_ms = 1000;

constinit Loop loop;
constinit Listener listener;
constinit SlotTable<DnsQuery> table;
constinit OpenList open_queries;
constinit OpenList ended_queries;  // cleared; their slots are given back at the end of the pass
constinit LinkedList<DnsQuery, &DnsQuery::unsettled> unsettled_queries;  // oldest first
constinit std::uint16_t listen_port_be = 0;

constinit ReceiveBatch<max_message> received;
constinit std::size_t received_count = 0;
constinit std::size_t received_next = 0;  // behind those that are served
constinit SendBatch replies;

constinit bool draining = false;
constinit std::size_t left_to_drain = most_when_draining;
// Read by the graceful stop.
constinit std::atomic<bool> drained = false;     // what had a slot is taken
constinit std::atomic<bool> takes_last = false;  // the rest waits for slots

bool cache_is_on() { return global.cache_path != nullptr; }

// ---- replies ------------------------------------------------------------------

void add_reply(const SocketAddress& client, const SocketAddress& local, Bytes id, Bytes rest) {
  replies.add(global.listen_fd, client, &local, id, rest);
}

void send_reply(const DnsQuery& query, Bytes reply) {
  if (query.reply != nullptr) return query.reply(query, reply);
  add_reply(query.client, query.local, reply.first(0), reply);
  replies.flush();
}

// ---- from a query to its end -----------------------------------------------------

bool applies(const DnsCondition& condition, const Question& question) {
  if (condition.query_type != 0) return condition.query_type == question.type;
  return regexec(condition.pattern, question.dotted.data(), 0, nullptr, 0) == 0;
}

DnsRule* match_rule(const Question& question) {
  for (DnsRule& rule : rules) {
    for (const DnsCondition& condition : rule.conditions) {
      if (applies(condition, question)) return &rule;
    }
  }
  return nullptr;
}

void take_result(DnsQuery& query, const LookupResult& result) {
  switch (result.state) {
    case LookupResult::State::waiting:
      return;
    case LookupResult::State::unsettled:
      query.settle_at_ms = monotonic_ms() + settle_ms;
      unsettled_queries.remove(query);
      unsettled_queries.add(query);
      return;
    case LookupResult::State::replied:
      send_reply(query, result.reply);
      if (result.storable && cache_is_on()) {
        dns_cache_store(query.message(), result.reply, global.cache_limit);
      }
      break;
    case LookupResult::State::failed:
      break;
  }
  dns_query_close(query);
}

void look_up(DnsQuery& query) {
  const auto question = read_question(query.message());
  query.rule = question ? match_rule(*question) : nullptr;
  if (query.rule == nullptr || !lookup_start(query, *question)) return dns_query_close(query);
  // With Fast Open the first bytes carry the connect: nothing would wake us before.
  if (query.upstream.state == tcp::LinkState::unconnected) {
    take_result(query, lookup_advance(query, 0));
    if (!query.in_use) return;
  }
  const std::uint64_t data = slot_mark | table.index_of(query);
  if (!loop.watch(query.upstream.fd, watch_both, data)) dns_query_close(query);
}

void admit(DnsQuery& query) {
  query.in_use = true;
  open_queries.add(query);
}

void release_ended() {
  while (DnsQuery* query = ended_queries.first()) {
    ended_queries.remove(*query);
    table.release(*query);
  }
}

// ---- receiving ----------------------------------------------------------------------

// False when there is no slot for it.
bool serve_datagram(std::size_t index) {
  const Bytes message = received.payload(index);
  const SocketAddress& client = received.sender(index);
  const auto local = local_address(received.header(index), listen_port_be);
  if (!local) return true;
  if (cache_is_on()) {
    if (const auto reply = dns_cache_lookup(message)) {
      // Its own identifier: the record may be sent once more in this batch.
      add_reply(client, *local, message.first(id_size), reply->subspan(id_size));
      return true;
    }
  }
  DnsQuery* query = table.claim();
  if (query == nullptr) return false;
  std::ranges::copy(message, query->message_room().begin());
  query->message_length = static_cast<std::uint16_t>(message.size());
  query->client = client;
  query->local = *local;
  admit(*query);
  look_up(*query);
  return true;
}

bool has_received() { return received_next < received_count; }

void serve_received() {
  while (has_received() && serve_datagram(received_next)) ++received_next;
  replies.flush();
}

enum class Waiting : std::uint8_t {
  maybe,    // in the kernel's queue
  nothing,  // now
  stuck,    // until a slot is free
};

// No more than there are slots for, so that the rest stays in the kernel's queue.
// Another service may still be quicker and take the last ones; what then has no
// slot waits here.
Waiting receive_batch() {
  const std::size_t slots = has_received() ? 0 : table.size() - table.in_use();
  if (slots != 0) {
    received_next = 0;
    received_count =
        static_cast<std::size_t>(std::max(0, received.receive(global.listen_fd, slots)));
    serve_received();
  }
  if (slots == 0 || has_received()) {
    listener.pause();
    return Waiting::stuck;
  }
  return received_count == std::min(slots, max_datagram_batch) ? Waiting::maybe : Waiting::nothing;
}

void receive_queries() {
  for (int i = 0; i < batches_per_pass; ++i) {
    if (receive_batch() != Waiting::maybe) return;
  }
}

// Until no slot is free: a query may end at once, and leave its slot to the next.
void serve_leftovers() {
  while (has_received()) {
    const std::size_t before = received_next;
    serve_received();
    release_ended();
    if (received_next == before) return;
  }
}

// Open queries are still answered from the listener's port.
void stop_listening() {
  if (open_queries.empty()) {
    listener.close();
  } else if (worker_place.count > 1 && !make_send_only(global.listen_fd)) {
    std::perror("bind()");
  }
}

// What the kernel holds when the drain begins would reach nobody else.
void receive_last() {
  Waiting waiting = Waiting::maybe;
  while (waiting == Waiting::maybe && left_to_drain > 0) {
    waiting = receive_batch();
    if (waiting != Waiting::stuck) left_to_drain -= std::min(received_count, left_to_drain);
    release_ended();
  }
  if (waiting != Waiting::stuck) {
    stop_listening();
    takes_last.store(false, std::memory_order_release);
  }
  drained.store(true, std::memory_order_release);
}

// Behind the pass, when its slots are free again.
void listen_again() {
  serve_leftovers();
  if (!draining) {
    if (table.in_use() < table.size() && !has_received()) listener.resume();
  } else if (takes_last.load(std::memory_order_relaxed)) {
    receive_last();
  } else if (open_queries.empty()) {
    listener.close();  // until then replies are sent by it
  }
}

// ---- the loop -----------------------------------------------------------------------

void dispatch(const epoll_event& event) {
  if (listener.is(event.data.u64)) {
    if (!listener.paused()) receive_queries();  // else earlier in this pass
    return;
  }
  DnsQuery& query = table.slots()[static_cast<std::size_t>(event.data.u64 & ~slot_mark)];
  if (!query.in_use) return;  // ended earlier in this pass
  take_result(query, lookup_advance(query, event.events));
}

void settle_overdue() {
  if (unsettled_queries.empty()) return;
  const std::int64_t now = monotonic_ms();
  while (DnsQuery* query = unsettled_queries.first()) {
    if (query->settle_at_ms > now) return;
    take_result(*query, lookup_settle(*query));
  }
}

int wait_limit_ms() {
  const int retry = listener.timeout_ms();
  const DnsQuery* query = unsettled_queries.first();
  if (query == nullptr) return retry;
  const auto left = std::max<std::int64_t>(0, query->settle_at_ms - monotonic_ms());
  return retry < 0 ? static_cast<int>(left) : std::min(retry, static_cast<int>(left));
}

// ---- mail -----------------------------------------------------------------------------

void start_submitted(Mail& mail) {
  // The mail is the first member, so the slot stands at its address.
  static_assert(offsetof(DnsQuery, mail) == 0);
  dns_query_start(*reinterpret_cast<DnsQuery*>(&mail));
}

void sweep(Mail& /*tick*/) {
  const auto limit = static_cast<std::uint32_t>(std::max(global.timeout, 0));
  for (DnsQuery* query = open_queries.first(); query != nullptr;) {
    DnsQuery& current = *query;
    query = OpenList::next(current);
    if (current.idle_ticks < limit) {
      ++current.idle_ticks;
    } else {
      dns_query_close(current);
    }
  }
}

// The end of the pass takes what waits. A listener of one process alone gets nothing
// new from here on; it needs no replacement, which a changed user may not bind.
void drain(Mail& /*request*/) {
  if (draining) return;
  draining = true;
  takes_last.store(true, std::memory_order_relaxed);
  listener.pause();
  if (worker_place.count == 1) stop_receiving(global.listen_fd);
}

// ---- the cache at exit -------------------------------------------------------------------

enum class Cache : std::uint8_t {
  unowned = 0,  // no DNS thread has begun
  served = 1,   // the DNS thread's
  saving = 2,
  saved = 3,
};
constinit std::atomic<Cache> cache_state = Cache::unowned;
constinit std::atomic<bool> save_appends = false;
constinit std::atomic<pid_t> dns_thread = 0;

constexpr int save_patience_ms = 300;  // until the loop responds
constexpr int write_patience_ms = 10'000;
constexpr timespec one_ms{.tv_sec = 0, .tv_nsec = 1'000'000};

pid_t this_thread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// A worker that was not waited for may have written before the last one does: its
// records are not to be lost.
bool appends_to_file() {
  const bool is_first = global.cache_saves == nullptr || global.cache_saves->exchange(1) == 0;
  return save_appends.load() || !is_first;
}

// Only once, whoever is told to.
void save_as(Cache owner) {
  if (!cache_state.compare_exchange_strong(owner, Cache::saving)) return;
  dns_cache_save(global.cache_path, appends_to_file());
  cache_state.store(Cache::saved);
}

void save_by_loop(Mail& /*request*/) { save_as(Cache::served); }

constinit Mail sweep_mail{.deliver = sweep};
constinit Mail drain_mail{.deliver = drain};
constinit Mail save_mail{.deliver = save_by_loop};

// The cache may be on its way to the file already: then the process ends.
void take_cache() {
  dns_thread.store(this_thread());
  Cache owner = Cache::unowned;
  if (cache_state.compare_exchange_strong(owner, Cache::served)) return;
  for (;;) pause();
}

// ---- start-up ------------------------------------------------------------------------------

[[noreturn]] void fail(const char* call) {
  std::perror(call);
  std::exit(EXIT_FAILURE);
}

void prepare_rules() {
  for (DnsRule& rule : rules) {
    rule.http_mod = httpmod::replica_for(rule.http_mod, loop);
    rule.tunnel_http_mod = httpmod::replica_for(rule.tunnel_http_mod, loop);
    if (build_templates(rule)) continue;
    (void)std::fputs("DNS request header creation failed\n", stderr);
    std::exit(EXIT_FAILURE);
  }
}

void learn_listen_port() {
  SocketAddress local;
  socklen_t length = SocketAddress::size;
  if (getsockname(global.listen_fd, local.raw(), &length) == 0) listen_port_be = local.port_be();
}

}  // namespace

void dns_prepare() {
  prepare_rules();
  learn_listen_port();
  const auto slots = static_cast<std::size_t>(std::max(global.max_sessions, 1));
  if (!table.allocate(slots)) fail("calloc()");
  constexpr std::size_t others = 2;  // listener, mailbox
  if (!loop.open(slots + others)) fail("epoll_create()");
  if (!listener.open(loop, global.listen_fd)) fail("epoll_ctl()");
}

void dns_server_thread() {
  take_cache();
  loop.deliver_mail();  // of a signal handler that was quicker than the epoll set
  release_ended();
  listen_again();
  for (;;) {
    const auto events = loop.wait(wait_limit_ms());
    listener.retry();
    loop.deliver_mail();  // first: a query is to find what was captured before it came
    for (std::size_t i = events.size(); i-- > 0;) dispatch(events[i]);
    settle_overdue();
    release_ended();
    listen_again();
    loop.end_pass();
  }
}

void dns_query_start(DnsQuery& query) {
  admit(query);
  if (cache_is_on()) {
    if (const auto reply = dns_cache_lookup(query.message())) {
      send_reply(query, *reply);
      return dns_query_close(query);
    }
  }
  look_up(query);
}

void dns_query_close(DnsQuery& query) {
  lookup_end(query);
  open_queries.remove(query);
  unsettled_queries.remove(query);
  std::destroy_at(&query);
  std::construct_at(&query);
  ended_queries.add(query);
}

DnsQuery* claim_query() { return table.claim(); }

void submit_query(DnsQuery& query) {
  query.mail.deliver = start_submitted;
  loop.post(query.mail);
}

void dns_sweep() { loop.post(sweep_mail); }
void dns_drain() { loop.post(drain_mail); }
bool dns_drained() { return drained.load(std::memory_order_acquire); }
// In this order: what waits for a slot has one before it no longer waits.
std::size_t dns_open_queries() {
  const std::size_t waiting = takes_last.load(std::memory_order_acquire) ? 1 : 0;
  return waiting + table.in_use();
}

void dns_save_cache(bool append) {
  save_appends.store(append);
  save_as(Cache::unowned);
  if (dns_thread.load() == this_thread()) save_as(Cache::served);
  if (cache_state.load() == Cache::served) loop.post(save_mail);
  for (int waited = 0; cache_state.load() != Cache::saved; ++waited) {
    // Writing may take its time, but not on this thread, which was interrupted by
    // its own failure.
    const bool writes = cache_state.load() == Cache::saving && dns_thread.load() != this_thread();
    if (waited == (writes ? write_patience_ms : save_patience_ms)) return;
    (void)nanosleep(&one_ms, nullptr);
  }
}

}  // namespace vrox::dns
