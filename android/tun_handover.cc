// Hands a TUN device over to vrox: the other end of the key unix_path.
//
//   tun_handover SOCKET DEVICE
//
// On Android the descriptor comes from VpnService.Builder.establish(), and the
// service keeps its addresses, MTU and routes; here a device that exists already
// stands for it. The daemon listens on SOCKET while it starts and waits there for
// one message with one descriptor:
//
//   Tun {
//       unix_path = /data/vrox/tun.socket;
//       tun_device = tun3;
//   }
//
// It never closes the connection, so that its end here tells when the daemon has
// ended. SOCKET stays behind then, and has to be removed before the next start of
// either; which of the two starts first does not matter.

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

int fail(const char* what) {
  std::perror(what);
  return 1;
}

// Stands for the descriptor that the VPN service got from the system.
int open_tun(const char* name) {
  const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (fd == -1) return -1;
  ifreq request{};
  std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;  // bare IP packets, as VpnService has them
  if (ioctl(fd, TUNSETIFF, &request) == 0) return fd;
  (void)close(fd);
  return -1;
}

bool is_not_there_yet(int error) { return error == ENOENT || error == ECONNREFUSED; }

// Waits for a daemon that is about to start.
int connect_to(const char* path) {
  constexpr int attempts = 200;
  constexpr timespec between{0, 50'000'000};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::strcpy(address.sun_path, path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return -1;
  for (int i = 0; i < attempts; ++i) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    if (!is_not_there_yet(errno)) break;
    (void)nanosleep(&between, nullptr);
  }
  const int reason = errno;
  (void)close(fd);
  errno = reason;
  return -1;
}

// A descriptor travels beside data, so there is one byte of it.
bool send_descriptor(int connection, int descriptor) {
  char byte = 0;
  iovec data{};
  data.iov_base = &byte;
  data.iov_len = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  return sendmsg(connection, &message, MSG_NOSIGNAL) == 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: tun_handover SOCKET DEVICE\n", stderr);
    return 2;
  }
  const int tun = open_tun(argv[2]);
  if (tun == -1) return fail(argv[2]);
  const int daemon = connect_to(argv[1]);
  if (daemon == -1) return fail(argv[1]);
  if (!send_descriptor(daemon, tun)) return fail("sendmsg");
  (void)close(tun);  // the daemon's copy keeps the device
  char byte = 0;
  while (read(daemon, &byte, 1) > 0) {
  }
  std::puts("the daemon has ended");
  return 0;
}
