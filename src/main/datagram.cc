#include "main/datagram.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vrox {

namespace {

// The kernel's, where a C library's <netinet/in.h> lacks them.
constexpr int ip_original_dst = 20;
constexpr int ipv6_original_dst = 74;

// CMSG_NXTHDR compares sizes of different signs in some C libraries, and takes a
// pointer to memory that must be aligned.
template <class Info>
bool find_control(const msghdr& header, int level, int type, Info& info) {
  std::span<const std::uint8_t> rest(static_cast<const std::uint8_t*>(header.msg_control),
                                     header.msg_controllen);
  while (rest.size() >= sizeof(cmsghdr)) {
    cmsghdr at{};
    std::memcpy(&at, rest.data(), sizeof at);
    if (at.cmsg_len < CMSG_LEN(0) || at.cmsg_len > rest.size()) return false;
    if (at.cmsg_level == level && at.cmsg_type == type && at.cmsg_len >= CMSG_LEN(sizeof info)) {
      std::memcpy(&info, rest.data() + CMSG_LEN(0), sizeof info);
      return true;
    }
    rest = rest.subspan(std::min(rest.size(), CMSG_SPACE(at.cmsg_len - CMSG_LEN(0))));
  }
  return false;
}

template <std::size_t Size, class Field>
std::array<std::uint8_t, Size> bytes_of(const Field& field) {
  static_assert(sizeof field == Size);
  std::array<std::uint8_t, Size> bytes{};
  std::memcpy(bytes.data(), &field, Size);
  return bytes;
}

// Without the interface: the reply goes the way that the routes say.
template <class Info>
std::size_t write_control(int level, int type, const Info& info, ControlBuffer& control) {
  cmsghdr header{};
  header.cmsg_len = CMSG_LEN(sizeof info);
  header.cmsg_level = level;
  header.cmsg_type = type;
  std::memcpy(control.data(), &header, sizeof header);
  std::memcpy(control.data() + CMSG_LEN(0), &info, sizeof info);
  return CMSG_SPACE(sizeof info);
}

std::size_t write_source(const SocketAddress* from, ControlBuffer& control) {
  if (from == nullptr || from->family() == AF_UNSPEC) return 0;
  if (from->family() == AF_INET6) {
    in6_pktinfo info{};
    const Address address = from->uniform();
    std::memcpy(&info.ipi6_addr, address.data(), address.size());
    return write_control(IPPROTO_IPV6, IPV6_PKTINFO, info, control);
  }
  in_pktinfo info{};
  const auto address = from->ipv4();
  std::memcpy(&info.ipi_spec_dst, address.data(), address.size());
  return write_control(IPPROTO_IP, IP_PKTINFO, info, control);
}

iovec part(std::span<const std::uint8_t> bytes) {
  // sendmsg() does not write to what it is given.
  return {.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = bytes.size()};
}

}  // namespace

std::optional<SocketAddress> local_address(const msghdr& header, std::uint16_t port_be) {
  in_pktinfo info{};
  if (find_control(header, IPPROTO_IP, IP_PKTINFO, info)) {
    return SocketAddress::v4(bytes_of<4>(info.ipi_spec_dst), port_be);
  }
  in6_pktinfo info6{};
  if (find_control(header, IPPROTO_IPV6, IPV6_PKTINFO, info6)) {
    return SocketAddress::v6(bytes_of<16>(info6.ipi6_addr), port_be);
  }
  return std::nullopt;
}

std::optional<SocketAddress> original_destination(const msghdr& header) {
  sockaddr_in address{};
  if (find_control(header, IPPROTO_IP, ip_original_dst, address)) {
    return SocketAddress::v4(bytes_of<4>(address.sin_addr), address.sin_port);
  }
  sockaddr_in6 address6{};
  if (find_control(header, IPPROTO_IPV6, ipv6_original_dst, address6)) {
    return SocketAddress::v6(bytes_of<16>(address6.sin6_addr), address6.sin6_port);
  }
  return std::nullopt;
}

void stop_receiving(int fd) {
  // A connected socket takes only what its peer sends; nobody sends from the
  // discard port. Where it fails the socket merely goes on receiving.
  constexpr std::uint16_t discard_port = 9;
  SocketAddress bound;
  socklen_t length = SocketAddress::size;
  if (getsockname(fd, bound.raw(), &length) != 0) return;
  constexpr std::array<std::uint8_t, 4> loopback4{127, 0, 0, 1};
  const SocketAddress nobody =
      bound.family() == AF_INET
          ? SocketAddress::v4(loopback4, htons(discard_port))
          : SocketAddress::v6(bytes_of<16>(in6addr_loopback), htons(discard_port));
  (void)connect(fd, nobody.raw(), nobody.length());
}

bool make_send_only(int fd) {
  SocketAddress bound;
  socklen_t length = SocketAddress::size;
  if (getsockname(fd, bound.raw(), &length) != 0) return false;
  const int sender = socket(bound.family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (sender == -1) return false;
  const int on = 1;
  const int off = 0;
  bool ready = setsockopt(sender, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
  if (bound.family() == AF_INET6) {  // answers IPv4 clients too
    ready = ready && setsockopt(sender, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) == 0;
  }
  ready = ready && bind(sender, bound.raw(), bound.length()) == 0;
  if (ready) stop_receiving(sender);  // one that came in between is lost
  ready = ready && dup2(sender, fd) != -1;
  const int reason = errno;
  (void)close(sender);
  errno = reason;
  return ready;
}

void SendBatch::add(int fd, const SocketAddress& to, const SocketAddress* from,
                    std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest) {
  if (count_ == max_datagram_batch || fd != fd_) flush();
  fd_ = fd;
  Slot& slot = slots_[count_];
  slot.parts = {part(head), part(rest)};
  headers_[count_] = {};
  msghdr& header = headers_[count_].msg_hdr;
  header.msg_name = const_cast<sockaddr*>(to.raw());
  header.msg_namelen = to.length();
  header.msg_iov = slot.parts.data();
  header.msg_iovlen = rest.empty() ? 1 : slot.parts.size();
  header.msg_controllen = write_source(from, slot.control);
  header.msg_control = header.msg_controllen == 0 ? nullptr : slot.control.data();
  ++count_;
}

void SendBatch::flush() {
  for (std::size_t sent = 0; sent < count_;) {
    const int result = sendmmsg(fd_, headers_.data() + sent, static_cast<unsigned>(count_ - sent),
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (result == -1 && errno == EINTR) continue;
    // The first of the rest could not be sent; the others may be.
    sent += result < 1 ? 1 : static_cast<std::size_t>(result);
  }
  count_ = 0;
}

}  // namespace vrox
