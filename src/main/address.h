// Socket addresses and the uniform 16-byte form in which rules compare them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vrox {

// IPv6 as it is; IPv4 in the first 4 bytes with the rest zero. Compared as one
// 128-bit number, first byte most significant.
using Address = std::array<std::uint8_t, 16>;

// The bits behind the first `prefix` ones (0 to 128) cleared.
[[nodiscard]] Address masked(const Address& address, unsigned prefix);

// Room for an IPv4 or IPv6 socket address: the 28 bytes of a sockaddr_in6. In
// an IPv4 one the address stands at the place of the flow information and,
// where rules look at it, again in the uniform form at the IPv6 position.
class SocketAddress {
 public:
  static constexpr socklen_t size = sizeof(sockaddr_in6);

  SocketAddress() = default;
  [[nodiscard]] static SocketAddress v4(std::span<const std::uint8_t, 4> address,
                                        std::uint16_t port_be);
  [[nodiscard]] static SocketAddress v6(std::span<const std::uint8_t, 16> address,
                                        std::uint16_t port_be);
  // ::ffff:a.b.c.d, the form in which IPv6 sockets reach IPv4 hosts.
  [[nodiscard]] static SocketAddress mapped_v4(std::span<const std::uint8_t, 4> address,
                                               std::uint16_t port_be);

  [[nodiscard]] sa_family_t family() const { return raw_.sin6_family; }
  void set_family(sa_family_t family) { raw_.sin6_family = family; }
  [[nodiscard]] std::uint16_t port_be() const { return raw_.sin6_port; }
  [[nodiscard]] std::uint16_t port() const { return ntohs(raw_.sin6_port); }

  // The 16 bytes at the IPv6 position.
  [[nodiscard]] Address uniform() const;
  // The 4 bytes at the IPv4 position.
  [[nodiscard]] std::array<std::uint8_t, 4> ipv4() const;
  [[nodiscard]] bool is_mapped_v4() const;

  // Brings a peer's address, as accept() stored it, into the uniform form: an
  // IPv4 or IPv4-mapped one becomes AF_INET with its bytes at both positions.
  void normalise();
  // Repeats the IPv4 address, as the kernel stored it, at the IPv6 position.
  void spread_v4();

  // What connect() and bind() are told: 28 bytes for IPv6, 16 otherwise.
  [[nodiscard]] socklen_t length() const {
    return family() == AF_INET6 ? size : socklen_t{sizeof(sockaddr_in)};
  }
  [[nodiscard]] sockaddr* raw() { return reinterpret_cast<sockaddr*>(&raw_); }
  [[nodiscard]] const sockaddr* raw() const { return reinterpret_cast<const sockaddr*>(&raw_); }

 private:
  sockaddr_in6 raw_{};
};
static_assert(sizeof(SocketAddress) == 28);

// A numeric address: IPv6 when the text holds a ':', else IPv4. Empty when it
// is neither (inet_pton).
[[nodiscard]] std::optional<SocketAddress> parse_address(std::string_view text, std::uint16_t port);

}  // namespace vrox
