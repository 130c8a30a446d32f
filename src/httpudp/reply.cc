#include "httpudp/reply.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "httpudp/global.h"
#include "main/datagram.h"
#include "main/hash_index.h"

namespace vrox::httpudp {

namespace {

// The kernel's, where a C library's <netinet/in.h> lacks them.
constexpr int ip_transparent = 19;
constexpr int ipv6_transparent = 75;

constexpr std::size_t max_reply_sockets = 1024;

// Bound to an address that clients have sent to, mostly a foreign one.
struct ReplySocket {
  EndpointKey key{};
  ReplySocket* bucket_next = nullptr;
  Links<ReplySocket> used;
  int fd = -1;
};

constinit std::array<ReplySocket, max_reply_sockets> sockets{};
constinit std::size_t opened = 0;  // from the front; never closed but to be replaced
constinit HashIndex<ReplySocket> by_address;
constinit LinkedList<ReplySocket, &ReplySocket::used> by_use;  // least recently used first
constinit SendBatch replies;

int open_bound(const SocketAddress& from) {
  const int family = from.family();
  const int fd = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) return -1;
  const int on = 1;
  // Without the privilege the machine's own addresses still work.
  (void)(family == AF_INET6 ? setsockopt(fd, IPPROTO_IPV6, ipv6_transparent, &on, sizeof on)
                            : setsockopt(fd, IPPROTO_IP, ip_transparent, &on, sizeof on));
  (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, from.raw(), from.length()) != 0) {
    (void)close(fd);
    return -1;
  }
  // What is sent to that address is for the listener, or for whom it belongs to.
  stop_receiving(fd);
  return fd;
}

ReplySocket& take_place() {
  if (opened < sockets.size()) return sockets[opened++];
  ReplySocket& oldest = *by_use.first();
  replies.flush();  // may hold datagrams for it
  by_use.remove(oldest);
  by_address.remove(oldest);
  (void)close(oldest.fd);
  return oldest;
}

// -1 when the kernel refuses.
int socket_from(const SocketAddress& from) {
  const EndpointKey key = endpoint_key(from, 0);
  ReplySocket* found = by_address.find(key);
  if (found == nullptr) {
    const int fd = open_bound(from);
    if (fd == -1) return -1;
    found = &take_place();
    found->key = key;
    found->fd = fd;
    by_address.insert(*found);
  }
  by_use.remove(*found);
  by_use.add(*found);
  return found->fd;
}

void reply_from_named(const UdpClient& client, const RelayHeader& header, Bytes payload) {
  if (header.address.family() != client.peer.family()) return;  // no socket can do that
  if (client.origin == Origin::other) return client.reply(header.address, client.peer, payload);
  const int fd = socket_from(header.address);
  if (fd != -1) replies.add(fd, client.peer, nullptr, payload);
}

}  // namespace

bool replies_prepare() { return by_address.allocate(max_reply_sockets); }

bool reply_to(const UdpClient& client, Bytes datagram) {
  if (client.origin == Origin::relay) {
    if (!has_relay_header(datagram)) return false;
    replies.add(global.socks5_fd, client.address, &client.local, datagram);
    return true;
  }
  const auto header = read_relay_header(datagram);
  if (!header) return false;
  reply_from_named(client, *header, datagram.subspan(header->size));
  return true;
}

void flush_replies() { replies.flush(); }

}  // namespace vrox::httpudp
