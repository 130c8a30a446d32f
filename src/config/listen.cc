#include "config/listen.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <optional>
#include <span>

#include "main/address.h"

namespace vrox::config {

int address_patience_ms = 0;

namespace {

constexpr int backlog = 128;

// The kernel's, where a C library's <netinet/in.h> lacks them.
constexpr int ip_transparent = 19;
constexpr int ip_receive_original_dst = 20;
constexpr int ipv6_receive_original_dst = 74;
constexpr int ipv6_transparent = 75;

// A socket under construction; closed unless it is released.
class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() {
    if (fd_ >= 0) (void)::close(fd_);
  }
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

int fail(const char* call) {
  std::perror(call);
  return -1;
}

int family_of(std::string_view address) {
  return address.find(':') == std::string_view::npos ? AF_INET : AF_INET6;
}

bool switch_on(int fd, int level, int option) {
  const int on = 1;
  return setsockopt(fd, level, option, &on, sizeof(on)) == 0;
}

// Whatever the system's default is, IPv4 clients reach an IPv6 listener.
bool admit_ipv4(int fd) {
  const int off = 0;
  return setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)) == 0;
}

bool set_common_options(int fd, int family) {
  return switch_on(fd, SOL_SOCKET, SO_REUSEADDR) && (family == AF_INET || admit_ipv4(fd));
}

bool bind_to(int fd, std::string_view address, std::uint16_t port) {
  const std::optional<SocketAddress> local = parse_address(address, port);
  if (!local) {
    errno = EINVAL;
    return false;
  }
  constexpr int step_ms = 10;
  constexpr timespec step{.tv_sec = 0, .tv_nsec = 1'000'000L * step_ms};
  for (int waited = 0; ::bind(fd, local->raw(), local->length()) != 0; waited += step_ms) {
    if (errno != EADDRINUSE || waited >= address_patience_ms) return false;
    (void)nanosleep(&step, nullptr);
  }
  return true;
}

bool set_non_blocking(int fd) { return ::fcntl(fd, F_SETFL, O_NONBLOCK) == 0; }

// An IPv6 listener gets both for an IPv4 datagram: only IPv4's own tells which local
// address answers for a broadcast.
bool ask_for_local_address(int fd, int family) {
  return switch_on(fd, IPPROTO_IP, IP_PKTINFO) &&
         (family == AF_INET || switch_on(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO));
}

struct Option {
  int level;
  int name;
};

// An IPv6 listener needs both families' options: it gets IPv4 datagrams too.
constexpr std::array<Option, 4> transparent_options{{
    {IPPROTO_IP, ip_transparent},
    {IPPROTO_IP, ip_receive_original_dst},
    {IPPROTO_IPV6, ipv6_transparent},
    {IPPROTO_IPV6, ipv6_receive_original_dst},
}};

bool set_transparent_options(int fd, int family) {
  const std::span<const Option> options(transparent_options);
  for (const Option option : family == AF_INET ? options.first(2) : options) {
    if (switch_on(fd, option.level, option.name)) continue;
    // Without the privilege the listener still serves what is sent to its own
    // address; that it is not transparent is said and no reason to stop.
    if (errno != EPERM) return false;
    std::perror("setsockopt()");
  }
  return true;
}

}  // namespace

int open_listen_socket(std::string_view address, std::uint16_t port) {
  const int family = family_of(address);
  Socket socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket.fd() == -1) return fail("socket()");
  if (!set_common_options(socket.fd(), family)) return fail("setsockopt()");
  if (!bind_to(socket.fd(), address, port)) return fail("bind()");
  if (::listen(socket.fd(), backlog) != 0) return fail("listen()");
  if (!set_non_blocking(socket.fd())) return fail("fcntl()");
  return socket.release();
}

int open_udp_listener(std::string_view address, std::uint16_t port, UdpListener kind) {
  const int family = family_of(address);
  Socket socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.fd() == -1) return fail("socket()");
  if (!set_common_options(socket.fd(), family) || !ask_for_local_address(socket.fd(), family) ||
      (kind == UdpListener::transparent && !set_transparent_options(socket.fd(), family))) {
    return fail("setsockopt()");
  }
  if (!bind_to(socket.fd(), address, port)) return fail("bind()");
  if (!set_non_blocking(socket.fd())) return fail("fcntl()");
  return socket.release();
}

}  // namespace vrox::config
