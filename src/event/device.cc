#include "event/device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "main/helpers.h"

namespace vrox::event {

constinit TunOptions tun_options;
constinit int tun_fd = -1;

namespace {

// What SIOCSIFADDR takes on an IPv6 socket: struct in6_ifreq of <linux/ipv6.h>,
// whose other records clash with the C library's.
struct Ipv6Request {
  in6_addr address;
  std::uint32_t prefix_length;
  int interface_index;
};

constexpr std::uint32_t ipv6_prefix_length = 64;
constexpr int backlog = 5;

// Lives as long as the process, like the rest of the configuration.
std::string_view keep(std::string_view text) {
  char* copy = new char[text.size() + 1];
  text.copy(copy, text.size());
  copy[text.size()] = '\0';
  return {copy, text.size()};
}

struct TextOption {
  TunOption option;
  std::string_view TunOptions::*field;
};
constexpr std::array text_options{
    TextOption{TunOption::unix_path, &TunOptions::unix_path},
    TextOption{TunOption::device_path, &TunOptions::device_path},
    TextOption{TunOption::device_name, &TunOptions::device_name},
    TextOption{TunOption::addr4, &TunOptions::addr4},
    TextOption{TunOption::addr6, &TunOptions::addr6},
};

struct NumberOption {
  TunOption option;
  std::int32_t TunOptions::*field;
};
constexpr std::array number_options{
    NumberOption{TunOption::mtu, &TunOptions::mtu},
    NumberOption{TunOption::tcp_rmax, &TunOptions::tcp_rmax},
    NumberOption{TunOption::tcp_wmax, &TunOptions::tcp_wmax},
};

void set_interface_address(int socket, ifreq& request) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  // A text that is no address leaves 0.0.0.0: an interface without an address.
  (void)inet_pton(AF_INET, tun_options.addr4.data(), &address.sin_addr);
  std::memcpy(&request.ifr_addr, &address, sizeof address);
  tun_assert(ioctl(socket, SIOCSIFADDR, &request) != -1, 82,
             "-1 != (ioctl(sockFd, SIOCSIFADDR, &ifr))");
}

// Leaves the interface's index in the request.
void set_interface_address6(ifreq& request) {
  const int socket6 = socket(AF_INET6, SOCK_DGRAM, 0);
  tun_assert(socket6 != -1, 86, "-1 != sock6Fd");
  tun_assert(ioctl(socket6, SIOGIFINDEX, &request) != -1, 87,
             "-1 != (ioctl(sock6Fd, SIOGIFINDEX, &ifr))");
  Ipv6Request request6{};
  (void)inet_pton(AF_INET6, tun_options.addr6.data(), &request6.address);
  request6.prefix_length = ipv6_prefix_length;
  request6.interface_index = request.ifr_ifindex;
  tun_assert(ioctl(socket6, SIOCSIFADDR, &request6) != -1, 92,
             "-1 != (ioctl(sock6Fd, SIOCSIFADDR, &ifr6))");
  (void)close(socket6);
}

// The flags are not read back first, which is intended: what the interface gets
// is its own index, left in the request by SIOGIFINDEX, with IFF_UP added.
void raise_interface(int socket, ifreq& request) {
  short flags = 0;
  std::memcpy(&flags, &request.ifr_ifru, sizeof flags);
  request.ifr_flags = static_cast<short>(flags | IFF_UP);
  tun_assert(ioctl(socket, SIOCSIFFLAGS, &request) != -1, 97,
             "-1 != (ioctl(sockFd, SIOCSIFFLAGS, &ifr))");
}

// Packets come without checksums, which the link cannot need. A kernel that refuses
// goes on filling them in.
void spare_checksums(int fd) { (void)ioctl(fd, TUNSETOFFLOAD, TUN_F_CSUM); }

int open_device() {
  const int fd = open(tun_options.device_path.data(), O_RDWR | O_CLOEXEC);
  tun_assert(fd != -1, 62, "-1 != tunFd");
  ifreq request{};
  // 16 bytes; the kernel itself ends a longer name.
  tun_options.device_name.copy(request.ifr_name, IFNAMSIZ);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  tun_assert(ioctl(fd, TUNSETIFF, &request) != -1, 68, "-1 != (ioctl(tunFd, TUNSETIFF, &ifr))");

  const int socket4 = socket(AF_INET, SOCK_DGRAM, 0);
  tun_assert(socket4 != -1, 72, "-1 != sockFd");
  request.ifr_mtu = tun_options.mtu;
  tun_assert(ioctl(socket4, SIOCSIFMTU, &request) != -1, 74,
             "-1 != (ioctl(sockFd, SIOCSIFMTU, &ifr))");
  set_interface_address(socket4, request);
  set_interface_address6(request);
  raise_interface(socket4, request);
  spare_checksums(fd);
  (void)close(socket4);
  return fd;
}

// No unlink first: a file in the way may belong to an instance that still runs.
int await_peer() {
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view path = tun_options.unix_path;
  int bound = -1;
  errno = ENAMETOOLONG;
  if (path.size() < sizeof address.sun_path) {
    path.copy(address.sun_path, path.size());
    bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  tun_assert(bound != -1, 116, "-1 != (bind(unixSock, (struct sockaddr *)&sun, sizeof(sun)))");
  tun_assert(listen(listener, backlog) != -1, 117, "-1 != (listen(unixSock, 5))");
  // No signal handler is installed yet that could interrupt this.
  const int peer = accept(listener, nullptr, nullptr);
  tun_assert(peer != -1, 119, "-1 != connFd");
  (void)close(listener);
  return peer;
}

// A message without a descriptor leaves the one that was there before.
int receive_descriptor(int peer) {
  std::uint8_t byte = 0;
  iovec data{.iov_base = &byte, .iov_len = 1};
  union {
    cmsghdr header;  // aligns the bytes
    std::array<char, CMSG_SPACE(sizeof(int))> bytes;
  } control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  message.msg_controllen = CMSG_LEN(sizeof(int));  // room for one, not for what the padding holds
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_len = CMSG_LEN(sizeof(int));
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  std::memcpy(CMSG_DATA(header), &tun_fd, sizeof tun_fd);
  tun_assert(recvmsg(peer, &message, 0) != -1, 137, "-1 != (recvmsg(connFd, &msg, 0))");
  int fd = -1;
  std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
  return fd;
}

}  // namespace

void tun_assertion_failed(int line, const char* condition) {
  const int reason = errno;
  (void)std::fprintf(stderr, "Assertion failed in %s on line %d: %s\n", "src/event", line,
                     condition);
  errno = reason;
  std::perror("");
  std::abort();
}

void* tun_allocate(std::size_t size) {
  void* memory = std::calloc(1, size);
  tun_assert(memory != nullptr, 24, "ptr != NULL");
  return memory;
}

void tun_set_option(TunOption option, std::string_view value) {
  const auto text = std::find_if(text_options.begin(), text_options.end(),
                                 [option](const TextOption& at) { return at.option == option; });
  if (text == text_options.end()) return tun_set_option(option, to_number(value));
  tun_options.*text->field = keep(value);
}

void tun_set_option(TunOption option, std::int32_t value) {
  if (option == TunOption::blocking) {
    tun_options.blocking = true;
    return;
  }
  const auto number =
      std::find_if(number_options.begin(), number_options.end(),
                   [option](const NumberOption& at) { return at.option == option; });
  tun_assert(number != number_options.end(), 51, "0 && \"flag not support\"");
  tun_options.*number->field = value;
}

int tun_open() {
  // The connection to the peer stays open as long as the process lives, which is
  // how the peer learns of its end.
  tun_fd = tun_options.unix_path.empty() ? open_device() : receive_descriptor(await_peer());
  return tun_fd;
}

}  // namespace vrox::event
