#include "httpudp/service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "httpmod/replica.h"
#include "httpudp/global.h"
#include "httpudp/receive.h"
#include "httpudp/reply.h"
#include "httpudp/tunnel.h"
#include "main/hash_index.h"
#include "main/listener.h"
#include "main/services.h"
#include "main/slot_table.h"

namespace vrox::httpudp {

namespace {

using OpenList = LinkedList<UdpClient, &UdpClient::open>;

constexpr std::uint64_t slot_mark = std::uint64_t{1} << 32;  // above every descriptor's number
constexpr int batches_per_pass = 8;
constexpr int batches_when_draining = 64;  // a busy listener is never found empty
constexpr int receive_memory = 4 << 20;    // of a listener: what comes while a pass lasts

// A datagram that is kept: until a slot is free, or on its way from another thread.
struct Parcel {
  Mail mail;
  Links<Parcel> waiting;
  Datagram datagram;
  Buffer frame;
};
using WaitingList = LinkedList<Parcel, &Parcel::waiting>;
constexpr std::size_t max_parcels = 256;     // of each kind
constexpr std::size_t kept_capacity = 4096;  // of an empty one

constinit Loop loop;
constinit Listener transparent;
constinit Listener relay;
constinit SlotTable<UdpClient> table;
constinit HashIndex<UdpClient> clients;
constinit OpenList open_clients;
constinit OpenList ended_clients;  // cleared; their slots are given back at the end of the pass
constinit LinkedList<UdpClient, &UdpClient::unsent> unsent_clients;
constinit LinkedList<UdpClient, &UdpClient::unread> unread_clients;
constinit SlotTable<Parcel> handed_over;  // by other services
constinit SlotTable<Parcel> shelf;        // for datagrams of new clients while the table is full
constinit WaitingList waiting_parcels;    // on the shelf, oldest first
constinit ListenerBatch received;
constinit bool prepared = false;  // before any thread runs
constinit bool draining = false;
constinit std::atomic<bool> drained = false;  // read by the graceful stop

std::uint64_t event_data(const UdpClient& client) { return slot_mark | table.index_of(client); }

EndpointKey key_of(const SocketAddress& peer, Origin origin) {
  return endpoint_key(peer, static_cast<std::uint8_t>(origin));
}

// ---- tunnels -----------------------------------------------------------------------

// Behind everything that was done with a tunnel: registers what it waits for now, or
// ends it.
void settle(UdpClient& client, bool sound) {
  if (!sound) return httpudp_close(client);
  const std::uint32_t mask = tunnel_wants(client);
  if (mask != client.watched) {
    const bool known = client.watched == 0
                           ? loop.watch(client.upstream.fd, mask, event_data(client))
                           : loop.rewatch(client.upstream.fd, mask, event_data(client));
    if (!known) return httpudp_close(client);
    client.watched = mask;
  }
  if (tunnel_has_more(client)) unread_clients.add(client);
}

void flush_unsent() {
  while (UdpClient* client = unsent_clients.first()) {
    unsent_clients.remove(*client);
    settle(*client, tunnel_send(*client));
  }
}

// Once each: what they still leave is for the next pass.
void read_on() {
  LinkedList<UdpClient, &UdpClient::unread> turn;
  std::swap(turn, unread_clients);
  while (UdpClient* client = turn.first()) {
    turn.remove(*client);
    settle(*client, tunnel_advance(*client, 0));
  }
}

void open_tunnel(UdpClient& client, const Datagram& datagram) {
  client.origin = datagram.origin;
  client.reply = datagram.reply;
  client.address = datagram.client;
  client.peer = datagram.client;
  client.peer.normalise();
  client.local = datagram.local;
  client.key = key_of(client.peer, client.origin);
  clients.insert(client);
  open_clients.add(client);
  httpudp_connect(client, datagram.frame);
}

// ---- datagrams -----------------------------------------------------------------------

// False when its client has no tunnel and there is no slot for one.
bool admit(const Datagram& datagram) {
  if (httpudp_queue(datagram)) return true;
  UdpClient* client = table.claim();
  if (client == nullptr) return false;
  open_tunnel(*client, datagram);
  return true;
}

bool fill(Parcel& parcel, Bytes head, Bytes payload) {
  const auto text = [](Bytes bytes) {
    return std::string_view{reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  };
  if (!parcel.frame.assign(text(head)) || !parcel.frame.append(text(payload))) return false;
  parcel.datagram.frame = {reinterpret_cast<const std::uint8_t*>(parcel.frame.data()),
                           parcel.frame.size()};
  return true;
}

void discard(SlotTable<Parcel>& owner, Parcel& parcel) {
  if (parcel.frame.capacity() > kept_capacity) parcel.frame.reset();
  owner.release(parcel);
}

// The newest are lost when the shelf is full.
void put_on_shelf(const Datagram& datagram) {
  Parcel* parcel = shelf.claim();
  if (parcel == nullptr) return;
  parcel->datagram = datagram;
  if (!fill(*parcel, datagram.frame, {})) return discard(shelf, *parcel);
  waiting_parcels.add(*parcel);
}

void serve_shelf() {
  for (Parcel* parcel = waiting_parcels.first(); parcel != nullptr;) {
    Parcel& current = *parcel;
    parcel = WaitingList::next(current);
    if (!admit(current.datagram)) continue;  // later ones may be of clients that have a slot now
    waiting_parcels.remove(current);
    discard(shelf, current);
  }
}

void serve_datagram(std::size_t index, Origin origin) {
  const auto datagram = framed(received, index, origin);
  if (datagram && !admit(*datagram)) put_on_shelf(*datagram);
}

bool shelf_is_full() { return shelf.size() - shelf.in_use() < max_datagram_batch; }

// What has neither a slot nor a place to wait stays in the kernel's queues.
void pause_listeners() {
  transparent.pause();
  relay.pause();
}

void receive(int fd, Origin origin, int batches) {
  for (int i = 0; i < batches; ++i) {
    if (shelf_is_full()) return pause_listeners();
    const int got = received.receive(fd);
    if (got == -1) {
      if (errno != EAGAIN && errno != EINTR) std::perror("recvmsg()");
      return;
    }
    const auto count = static_cast<std::size_t>(got);
    for (std::size_t index = 0; index < count; ++index) serve_datagram(index, origin);
    if (count < max_datagram_batch) return;
  }
}

// ---- the loop --------------------------------------------------------------------------

void dispatch(const epoll_event& event) {
  if (transparent.is(event.data.u64)) {
    return receive(global.tproxy_fd, Origin::transparent, batches_per_pass);
  }
  if (relay.is(event.data.u64)) return receive(global.socks5_fd, Origin::relay, batches_per_pass);
  UdpClient& client = table.slots()[static_cast<std::size_t>(event.data.u64 & ~slot_mark)];
  if (!client.in_use()) return;  // ended earlier in this pass
  client.idle_ticks = 0;
  settle(client, tunnel_advance(client, event.events));
}

void release_ended() {
  if (ended_clients.empty()) return;
  while (UdpClient* client = ended_clients.first()) {
    ended_clients.remove(*client);
    table.release(*client);
  }
  serve_shelf();
  if (draining || shelf_is_full()) return;
  transparent.resume();
  relay.resume();
}

// ---- mail ------------------------------------------------------------------------------

void take_parcel(Mail& mail) {
  // The mail is the first member, so the parcel stands at its address.
  static_assert(offsetof(Parcel, mail) == 0);
  auto& parcel = *reinterpret_cast<Parcel*>(&mail);
  // Dropped when no slot is free. Without listeners only open tunnels go on.
  (void)(draining ? httpudp_queue(parcel.datagram) : admit(parcel.datagram));
  discard(handed_over, parcel);
}

void sweep(Mail& /*tick*/) {
  const auto limit = static_cast<std::uint32_t>(std::max(global.timeout, 0));
  for (UdpClient* client = open_clients.first(); client != nullptr;) {
    UdpClient& current = *client;
    client = OpenList::next(current);
    if (current.idle_ticks < limit) {
      ++current.idle_ticks;
    } else {
      httpudp_close(current);
    }
  }
}

// What waits is taken. A listener of one process alone gets nothing new from here on.
void take_last(Listener& listener, int fd, Origin origin) {
  if (fd < 0) return;
  if (worker_place.count == 1) stop_receiving(fd);
  receive(fd, origin, batches_when_draining);
  listener.pause();
}

void drain(Mail& /*request*/) {
  draining = true;
  take_last(transparent, global.tproxy_fd, Origin::transparent);
  take_last(relay, global.socks5_fd, Origin::relay);
}

// Behind the pass, when the slots that ended in it are free. Open tunnels go on;
// their SOCKS5 clients are still answered by the relay's socket.
void finish_drain() {
  if (!draining || drained.load(std::memory_order_relaxed)) return;
  transparent.close();
  if (table.in_use() == 0) {
    relay.close();
  } else if (global.socks5_fd >= 0 && worker_place.count > 1 && !make_send_only(global.socks5_fd)) {
    std::perror("bind()");
  }
  drained.store(true, std::memory_order_release);
}

constinit Mail sweep_mail{.deliver = sweep};
constinit Mail drain_mail{.deliver = drain};

// ---- start-up ----------------------------------------------------------------------------

[[noreturn]] void fail(const char* call) {
  std::perror(call);
  std::exit(EXIT_FAILURE);
}

[[noreturn]] void fail_with(const char* message) {
  (void)std::fputs(message, stderr);
  std::exit(EXIT_FAILURE);
}

void prepare_tunnels() {
  const RequestSource source{.header = global.http_header,
                             .host = global.header_host,
                             .module = httpmod::replica_for(global.http_mod, loop)};
  switch (tunnels_prepare(source)) {
    case TunnelRequest::Result::done:
      return;
    case TunnelRequest::Result::no_memory:
      fail_with("out of memory\n");
    case TunnelRequest::Result::failed:
      fail_with("httpUDP request creation failed\n");
  }
}

void listen_on(Listener& listener, int fd) {
  if (fd < 0) return;
  // Beyond what the system allows everybody, where we have the privilege.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_memory, sizeof receive_memory) != 0) {
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_memory, sizeof receive_memory);
  }
  if (!listener.open(loop, fd)) fail("epoll_ctl()");
}

}  // namespace

void httpudp_init() {
  prepare_tunnels();
  const auto slots = static_cast<std::size_t>(std::max(global.max_sessions, 1));
  if (!table.allocate(slots) || !clients.allocate(slots) || !replies_prepare() ||
      !handed_over.allocate(max_parcels) || !shelf.allocate(max_parcels)) {
    fail("calloc()");
  }
  constexpr std::size_t others = 3;  // listeners, mailbox
  if (!loop.open(slots + others)) fail("epoll_create()");
  listen_on(transparent, global.tproxy_fd);
  listen_on(relay, global.socks5_fd);
  prepared = true;
}

void httpudp_thread() {
  loop.deliver_mail();  // of a signal that was quicker than the epoll set
  for (;;) {
    // A tunnel may have failed at once while the pass before was already closed.
    const bool has_work = !unread_clients.empty() || !ended_clients.empty();
    const auto events = loop.wait(has_work ? 0 : -1);
    for (std::size_t i = events.size(); i-- > 0;) dispatch(events[i]);
    loop.deliver_mail();
    read_on();
    flush_unsent();
    release_ended();
    flush_unsent();  // of datagrams that had waited for a slot
    finish_drain();
    loop.end_pass();
  }
}

bool httpudp_queue(const Datagram& datagram) {
  SocketAddress peer = datagram.client;
  peer.normalise();
  UdpClient* client = clients.find(key_of(peer, datagram.origin));
  if (client == nullptr) return false;
  client->local = datagram.local;
  // What was queued in this pass goes out before it would have to wait or be dropped.
  if (client->pending() + datagram.frame.size() >= send_limit && !tunnel_send(*client)) {
    httpudp_close(*client);
    return false;
  }
  tunnel_queue(*client, datagram.frame);
  unsent_clients.add(*client);
  return true;
}

void httpudp_connect(UdpClient& client, Bytes first) { settle(client, tunnel_open(client, first)); }

void httpudp_close(UdpClient& client) {
  if (client.watched != 0) loop.unwatch(client.upstream.fd);
  if (client.in_use()) loop.retire(client.upstream.fd);
  tunnel_release(client);
  clients.remove(client);
  open_clients.remove(client);
  unsent_clients.remove(client);
  unread_clients.remove(client);
  std::destroy_at(&client);
  std::construct_at(&client);
  ended_clients.add(client);
}

bool httpudp_submit(const SocketAddress& client, const SocketAddress& destination, Bytes payload,
                    ReplyHook reply) {
  if (!prepared) return false;
  std::array<std::uint8_t, max_frame_head> room{};
  const std::size_t head = write_frame_head(room, &destination, payload.size());
  Parcel* parcel = head == 0 ? nullptr : handed_over.claim();
  if (parcel == nullptr) return false;
  parcel->datagram = {
      .client = client, .local = {}, .origin = Origin::other, .reply = reply, .frame = {}};
  if (!fill(*parcel, Bytes(room).last(head), payload)) {
    discard(handed_over, *parcel);
    return false;
  }
  parcel->mail.deliver = take_parcel;
  loop.post(parcel->mail);
  return true;
}

void httpudp_sweep() {
  if (prepared) loop.post(sweep_mail);
}

void httpudp_drain() {
  if (prepared) {
    loop.post(drain_mail);
    return;
  }
  // Listeners without a destination: nobody has them.
  for (const int fd : {global.tproxy_fd, global.socks5_fd}) {
    if (fd >= 0) (void)close(fd);
  }
}

bool httpudp_drained() { return !prepared || drained.load(std::memory_order_acquire); }

std::size_t httpudp_open_tunnels() { return table.in_use(); }

}  // namespace vrox::httpudp
