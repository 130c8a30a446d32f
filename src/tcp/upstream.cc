#include "tcp/upstream.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vrox::tcp {

namespace {

// As the result of a non-blocking connect: 0, or -1 with EINPROGRESS.
int connect_plainly(Upstream& upstream) {
  const int result = connect(upstream.fd, upstream.address->raw(), upstream.address->length());
  if (result == 0) {
    upstream.state = LinkState::connected;
  } else if (errno == EINPROGRESS) {
    upstream.state = LinkState::connecting;
  }
  return result;
}

// The call that failed, with errno; null when none did.
const char* try_dial(Upstream& upstream, const SocketAddress& to, bool fast_open) {
  upstream = {};
  upstream.address = &to;
  upstream.fd = socket(to.family(), SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (upstream.fd == -1) return "socket()";
  return fast_open || connect_now(upstream) ? nullptr : "connect()";
}

// Keeps errno: it tells the caller why.
void hang_up(Upstream& upstream) {
  const int error = errno;
  if (upstream.fd != -1) (void)close(upstream.fd);
  upstream = {};
  errno = error;
}

}  // namespace

bool connect_now(Upstream& upstream) {
  return connect_plainly(upstream) == 0 || errno == EINPROGRESS;
}

bool dial(Upstream& upstream, const SocketAddress& to, bool fast_open) {
  const char* failed = try_dial(upstream, to, fast_open);
  if (failed == nullptr) return true;
  hang_up(upstream);
  const int error = errno;
  std::perror(failed);
  errno = error;
  return false;
}

bool dial_quietly(Upstream& upstream, const SocketAddress& to, bool fast_open) {
  if (try_dial(upstream, to, fast_open) == nullptr) return true;
  hang_up(upstream);
  return false;
}

void set_no_delay(int fd) {
  const int on = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void set_keep_alive(int fd, std::int32_t idle_seconds) {
  const int on = idle_seconds == 0 ? 0 : 1;
  (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  if (idle_seconds > 0) {
    (void)setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle_seconds, sizeof idle_seconds);
  }
}

// Never EINTR: nothing would tell the caller when to try again.
ssize_t upstream_write(Upstream& upstream, std::string_view bytes) {
  ssize_t sent = -1;
  if (upstream.state != LinkState::unconnected) {
    do {
      sent = send(upstream.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    if (sent > 0) upstream.state = LinkState::connected;
    return sent;
  }
  do {
    sent = sendto(upstream.fd, bytes.data(), bytes.size(), MSG_FASTOPEN | MSG_NOSIGNAL,
                  upstream.address->raw(), SocketAddress::size);
  } while (sent == -1 && errno == EINTR);
  if (sent >= 0) {
    upstream.state = LinkState::connected;
  } else if (errno == EINPROGRESS) {
    upstream.state = LinkState::connecting;
  } else if (errno == EOPNOTSUPP) {
    if (connect_plainly(upstream) == 0) return upstream_write(upstream, bytes);
  }
  return sent;
}

}  // namespace vrox::tcp
