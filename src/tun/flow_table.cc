#include "tun/flow_table.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "event/device.h"
#include "main/clock.h"
#include "main/random.h"
#include "tun/flow.h"

namespace vrox::tun {

namespace {

constexpr std::size_t max_fading = 65536;
constexpr std::size_t lingering_memory = std::size_t{64} << 20;

// ---- buffers --------------------------------------------------------------------

// Buffers of the size that is asked for, of which the last few that came back are
// kept for the next.
class BufferPool {
 public:
  void lend(ByteRing& ring, std::size_t size) {
    if (ring.has_memory()) return;
    while (count_ != 0 && kept_[count_ - 1].size() != size) std::free(kept_[--count_].data());
    if (count_ != 0) return ring.attach(kept_[--count_]);
    ring.attach({static_cast<std::uint8_t*>(event::tun_allocate(size)), size});
  }
  void take_back(ByteRing& ring) {
    if (!ring.has_memory()) return;
    const std::span<std::uint8_t> memory = ring.detach();
    if (count_ == kept_.size()) {
      std::free(memory.data());
    } else {
      kept_[count_++] = memory;
    }
  }

 private:
  std::array<std::span<std::uint8_t>, 16> kept_{};
  std::size_t count_ = 0;
};

constinit BufferPool receive_buffers;
constinit BufferPool send_buffers;

std::size_t limit_of(std::int32_t option) {
  return option > 0 ? static_cast<std::size_t>(option) : 0;
}

// ---- by name --------------------------------------------------------------------

constexpr std::size_t first_buckets = 1024;
constinit TunFlow** buckets = nullptr;
constinit std::size_t bucket_count = 0;  // a power of two
constinit std::size_t flow_count = 0;

TunFlow*& bucket_of(const FlowName& name) {
  std::array<std::uint8_t, sizeof(Address) + 3> key{};
  std::memcpy(key.data(), name.client.data(), sizeof(Address));
  std::memcpy(key.data() + sizeof(Address), &name.port_be, 2);
  key.back() = name.version;
  return buckets[keyed_hash(key) & (bucket_count - 1)];
}
TunFlow*& bucket_of(const TunFlow& flow) {
  return bucket_of(
      {flow.version(), flow.to_client.destination, flow.to_client.destination_port_be});
}

void add_to_bucket(TunFlow& flow) {
  TunFlow*& bucket = bucket_of(flow);
  flow.next_in_bucket = bucket;
  bucket = &flow;
}

void make_room() {
  if (flow_count < bucket_count) return;
  const std::size_t old_count = bucket_count;
  TunFlow** old = buckets;
  bucket_count = std::max(first_buckets, old_count * 2);
  buckets = static_cast<TunFlow**>(event::tun_allocate(bucket_count * sizeof *buckets));
  for (std::size_t i = 0; i < old_count; ++i) {
    while (TunFlow* flow = old[i]) {
      old[i] = flow->next_in_bucket;
      add_to_bucket(*flow);
    }
  }
  std::free(old);
}

// ---- by silence -----------------------------------------------------------------

using FadingList = LinkedList<TunFlow, &TunFlow::fading>;
constinit FadingList fading_flows;
constinit std::size_t fading_count = 0;

using LingeringList = LinkedList<TunFlow, &TunFlow::lingering>;
constinit LingeringList lingering_flows;
constinit std::size_t lingering_count = 0;
constinit std::atomic<std::size_t> unfinished_count = 0;

void stop_lingering(TunFlow& flow) {
  if (!flow.lingering.linked) return;
  lingering_flows.remove(flow);
  --lingering_count;
}

}  // namespace

bool is_named(const TunFlow& flow, const FlowName& name) {
  return flow.to_client.destination_port_be == name.port_be && flow.version() == name.version &&
         flow.to_client.destination == name.client;
}

TunFlow* find_flow(const FlowName& name) {
  if (bucket_count == 0) return nullptr;
  TunFlow* flow = bucket_of(name);
  while (flow != nullptr && !is_named(*flow, name)) flow = flow->next_in_bucket;
  return flow;
}

TunFlow& open_flow(const Route& to_client) {
  make_room();
  TunFlow& flow = *new (event::tun_allocate(sizeof(TunFlow))) TunFlow;
  flow.to_client = to_client;
  flow.enter(syn_received);
  add_to_bucket(flow);
  ++flow_count;
  fade(flow);
  return flow;
}

void free_flow(TunFlow& flow) {
  TunFlow** link = &bucket_of(flow);
  while (*link != &flow) link = &(*link)->next_in_bucket;
  *link = flow.next_in_bucket;
  stop_fading(flow);
  set_unfinished(flow, false);
  take_back_receive_buffer(flow);
  take_back_send_buffer(flow);
  --flow_count;
  std::destroy_at(&flow);
  std::free(&flow);
}

// At the end of the lists: it was heard of just now.
void fade(TunFlow& flow) {
  stop_fading(flow);
  flow.heard_at_ms = monotonic_ms();
  fading_flows.add(flow);
  ++fading_count;
  stop_lingering(flow);
  if (!flow.has(closed_here) || !flow.unsent.has_memory()) return;
  lingering_flows.add(flow);
  ++lingering_count;
}

void stop_fading(TunFlow& flow) {
  if (!flow.fading.linked) return;
  fading_flows.remove(flow);
  --fading_count;
}

TunFlow* longest_silent_flow() { return fading_flows.first(); }

TunFlow* surplus_fading_flow() {
  return fading_count > max_fading ? fading_flows.first() : nullptr;
}

TunFlow* surplus_lingering_flow() {
  const std::size_t most =
      std::max<std::size_t>(1, lingering_memory / std::max<std::size_t>(1, send_limit()));
  return lingering_count > most ? lingering_flows.first() : nullptr;
}

void set_unfinished(TunFlow& flow, bool unfinished) {
  if (flow.unfinished == unfinished) return;
  flow.unfinished = unfinished;
  if (unfinished) {
    unfinished_count.fetch_add(1, std::memory_order_relaxed);
  } else {
    unfinished_count.fetch_sub(1, std::memory_order_relaxed);
  }
}

std::size_t tun_flow_count() { return flow_count; }

std::size_t tun_unfinished_flows() { return unfinished_count.load(std::memory_order_relaxed); }

std::size_t receive_limit() { return limit_of(event::tun_options.tcp_rmax); }
std::size_t send_limit() { return limit_of(event::tun_options.tcp_wmax); }

void lend_receive_buffer(TunFlow& flow) { receive_buffers.lend(flow.received, receive_limit()); }
void lend_send_buffer(TunFlow& flow) { send_buffers.lend(flow.unsent, send_limit()); }
void take_back_receive_buffer(TunFlow& flow) { receive_buffers.take_back(flow.received); }
void take_back_send_buffer(TunFlow& flow) {
  send_buffers.take_back(flow.unsent);
  stop_lingering(flow);
}

}  // namespace vrox::tun
