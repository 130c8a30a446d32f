#include "httpudp/tunnel.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "httpmod/cipher.h"
#include "httpudp/global.h"
#include "httpudp/reply.h"
#include "main/loop.h"
#include "tcp/handshake.h"

namespace vrox::httpudp {

namespace {

using tcp::Handshake;
using tcp::LinkState;
using tcp::Socks5State;
using tcp::TunnelState;

constexpr std::size_t read_size = std::size_t{64} << 10;
constexpr int reads_per_pass = 16;
constexpr std::size_t kept_capacity = 2048;  // of a tunnel that has nothing to send

constinit std::array<char, read_size> chunk{};  // what one read brought

// Never freed: threads still run while the process exits.
struct Workspace {
  TunnelRequest request;
  Buffer spare;  // memory for the next queue that fills, of one that was emptied
};
constinit Workspace* work = nullptr;

Bytes bytes_of(std::span<const char> text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
std::string_view as_text(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// ---- the way out --------------------------------------------------------------

std::int32_t& uses(tcp::Destination& destination) { return destination.use_count; }
std::int32_t& uses_of_module(tcp::Module& module) { return module.use_count; }

// Where the first datagram goes, for a `destAddr` that says so. A name is no address.
bool own_destination(Bytes first, SocketAddress& target) {
  const Bytes datagram = first.subspan(length_size);
  const auto header = read_relay_header(datagram);
  if (!header || datagram[type_at] == address_name) return false;
  target = header->address;
  return true;
}

// The section's destination, and what is connected to: that, or the SOCKS5 proxy
// before it. Null when the destination whose turn it is refuses.
const SocketAddress* choose_upstream(UdpClient& client, Bytes first) {
  client.destination = &pick_least_used(global.destinations, uses);
  if (client.destination->deny_network) return nullptr;
  client.target = client.destination->address;
  if (client.destination->original_dst && !own_destination(first, client.target)) return nullptr;
  if (global.socks5_modules.empty()) return &client.target;
  client.socks5 = &pick_least_used(global.socks5_modules, uses_of_module);
  client.target.normalise();  // proxies know IPv4 addresses as such
  if (client.socks5->destinations.empty()) return nullptr;
  client.socks5_destination = &pick_least_used(client.socks5->destinations, uses);
  return &client.socks5_destination->address;
}

// ---- handshakes -----------------------------------------------------------------

// False when it failed; the caller goes on when the state is `done`.
bool drive_socks5(UdpClient& client) {
  tcp::Upstream& upstream = client.upstream;
  while (upstream.socks5_state != Socks5State::done) {
    const Socks5State before = upstream.socks5_state;
    if (before != Socks5State::greeting && !client.readable) return true;
    switch (tcp::socks5_client_step(upstream, client.socks5->socks5_auth.view(), client.target)) {
      case Handshake::failed:
        return false;
      case Handshake::writable:
        client.writable = false;
        return true;
      case Handshake::readable:
        if (upstream.socks5_state == before) client.readable = false;
        break;
      case Handshake::done:
        break;
    }
  }
  return true;
}

bool send_request(UdpClient& client) {
  if (client.request.empty() && !work->request.copy_to(client.request)) return false;
  const Handshake step = tcp::tunnel_client_step(client.upstream, client.request, tcp::long_answer);
  if (step == Handshake::writable) client.writable = false;
  if (client.upstream.tunnel_state != TunnelState::request) client.request.reset();
  return step != Handshake::failed;
}

bool read_answer(UdpClient& client) {
  const Handshake step = tcp::tunnel_client_step(client.upstream, client.request, tcp::long_answer);
  if (step == Handshake::readable) client.readable = false;
  return step != Handshake::failed;
}

// ---- datagrams into the tunnel ----------------------------------------------------

// Datagrams follow the request at once; the proxy's answer is not waited for.
bool takes_datagrams(const UdpClient& client) {
  return client.writable && client.upstream.tunnel_state != TunnelState::request &&
         client.upstream.state == LinkState::connected;
}

void forget_sent(UdpClient& client) {
  client.outgoing.erase_front(client.sent);
  client.sent = 0;
}

void give_back(Buffer& emptied) {
  emptied.clear();
  if (emptied.capacity() <= kept_capacity) return;
  if (emptied.capacity() > work->spare.capacity()) std::swap(emptied, work->spare);
  emptied.reset();
}

// ---- datagrams out of it ------------------------------------------------------------

// Answers the client with the whole frames of `bytes`. What they take; empty when
// one is shorter than its own header.
std::optional<std::size_t> deliver(const UdpClient& client, Bytes bytes) {
  std::size_t taken = 0;
  bool sound = true;
  while (sound) {
    const Frame frame = first_frame(bytes.subspan(taken));
    if (frame.size == 0) break;
    sound = reply_to(client, frame.datagram);
    if (sound) taken += frame.size;
  }
  flush_replies();  // which are views of `bytes`
  return sound ? std::optional(taken) : std::nullopt;
}

void decipher(UdpClient& client, std::span<char> bytes) {
  if (!global.tunnel_key.on()) return;
  client.receive_key = httpmod::tunnel_decode(bytes, global.tunnel_key, client.receive_key);
}

// One read: into the chunk that all share, or behind the reply that is incomplete.
enum class Read : std::uint8_t { some, nothing, over };
Read read_once(UdpClient& client) {
  Buffer& received = client.received;
  const bool shared = received.empty();
  if (!shared && !received.reserve(read_size)) return Read::over;
  const std::span<char> room = shared ? std::span<char>(chunk) : received.spare().first(read_size);
  const ssize_t got = recv(client.upstream.fd, room.data(), room.size(), 0);
  if (got == -1 && errno == EINTR) return Read::some;
  if (got == -1 && errno == EAGAIN) return Read::nothing;
  if (got < 1) return Read::over;
  client.idle_ticks = 0;
  const std::span<char> piece = room.first(static_cast<std::size_t>(got));
  decipher(client, piece);
  if (!shared) received.commit(piece.size());
  const Bytes bytes = shared ? bytes_of(piece) : bytes_of(received.span());
  const auto taken = deliver(client, bytes);
  if (!taken) return Read::over;
  if (shared) return received.append(as_text(bytes.subspan(*taken))) ? Read::some : Read::over;
  received.erase_front(*taken);
  if (received.empty()) received.reset();
  return Read::some;
}

bool receive(UdpClient& client) {
  for (int i = 0; i < reads_per_pass && client.readable; ++i) {
    const Read read = read_once(client);
    if (read == Read::over) return false;
    if (read == Read::nothing) client.readable = false;
  }
  return true;
}

}  // namespace

TunnelRequest::Result tunnels_prepare(const RequestSource& source) {
  work = new (std::nothrow) Workspace;
  return work == nullptr ? TunnelRequest::Result::no_memory : work->request.build(source);
}

bool tunnel_open(UdpClient& client, Bytes first) {
  client.send_key = client.receive_key = httpmod::starting_key(std::time(nullptr));
  tunnel_queue(client, first);
  const SocketAddress* to = choose_upstream(client, first);
  if (to == nullptr || !tcp::dial_quietly(client.upstream, *to, global.fast_open)) return false;
  tcp::set_no_delay(client.upstream.fd);
  // With Fast Open the first bytes carry the connect: nothing would wake us before.
  return client.upstream.state != LinkState::unconnected || tunnel_advance(client, 0);
}

bool tunnel_advance(UdpClient& client, std::uint32_t events) {
  constexpr std::uint32_t ended = EPOLLERR | EPOLLHUP;  // shows in the next read or write
  if ((events & (EPOLLIN | ended)) != 0) client.readable = true;
  if ((events & (EPOLLOUT | ended)) != 0) {
    client.writable = true;
    if (client.upstream.state == LinkState::connecting) {
      client.upstream.state = LinkState::connected;
    }
  }
  if (client.upstream.state == LinkState::connecting) return true;
  if (client.socks5 != nullptr) {
    if (!drive_socks5(client)) return false;
    if (client.upstream.socks5_state != Socks5State::done) return true;
  }
  if (client.upstream.tunnel_state == TunnelState::request && !send_request(client)) return false;
  if (client.upstream.tunnel_state == TunnelState::reply && client.readable &&
      !read_answer(client)) {
    return false;
  }
  if (client.upstream.tunnel_state == TunnelState::open && !receive(client)) return false;
  return tunnel_send(client);
}

void tunnel_queue(UdpClient& client, Bytes frame) {
  if (client.pending() + frame.size() > queue_limit) return;
  Buffer& outgoing = client.outgoing;
  if (outgoing.empty() && outgoing.capacity() < work->spare.capacity()) {
    std::swap(outgoing, work->spare);
  }
  if (client.sent >= send_limit) forget_sent(client);
  const std::size_t before = outgoing.size();
  if (!outgoing.append(as_text(frame)) || !global.tunnel_key.on()) return;
  client.send_key =
      httpmod::tunnel_encode(outgoing.span().subspan(before), global.tunnel_key, client.send_key);
}

bool tunnel_send(UdpClient& client) {
  while (client.pending() != 0 && takes_datagrams(client)) {
    const std::string_view rest = client.outgoing.view().substr(client.sent);
    const ssize_t sent = tcp::upstream_write(client.upstream, rest);
    if (sent > 0) {
      client.sent += static_cast<std::size_t>(sent);
      client.idle_ticks = 0;
    } else if (sent == 0 || errno != EINTR) {
      if (sent == 0 || errno != EAGAIN) return false;
      client.writable = false;
    }
  }
  if (client.pending() == 0 && !client.outgoing.empty()) {
    client.sent = 0;
    give_back(client.outgoing);
  }
  return true;
}

std::uint32_t tunnel_wants(const UdpClient& client) {
  const bool output = client.upstream.state != LinkState::connected || !client.writable ||
                      client.upstream.tunnel_state == TunnelState::request;
  return output ? watch_both : watch_input;
}

bool tunnel_has_more(const UdpClient& client) {
  return client.readable && client.upstream.tunnel_state == TunnelState::open;
}

void tunnel_release(UdpClient& client) {
  if (client.destination != nullptr) --client.destination->use_count;
  if (client.socks5 != nullptr) --client.socks5->use_count;
  if (client.socks5_destination != nullptr) --client.socks5_destination->use_count;
}

}  // namespace vrox::httpudp
