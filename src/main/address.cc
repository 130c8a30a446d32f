#include "main/address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace vrox {

namespace {
constexpr std::array<std::uint8_t, 12> mapped_prefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
}

Address masked(const Address& address, unsigned prefix) {
  Address result{};
  for (unsigned i = 0; i < result.size() && i * 8 < prefix; ++i) {
    const unsigned bits = std::min(8U, prefix - i * 8);
    result[i] = static_cast<std::uint8_t>(address[i] & (0xff00U >> bits));
  }
  return result;
}

SocketAddress SocketAddress::v4(std::span<const std::uint8_t, 4> address, std::uint16_t port_be) {
  SocketAddress result;
  result.raw_.sin6_family = AF_INET;
  result.raw_.sin6_port = port_be;
  std::memcpy(&result.raw_.sin6_flowinfo, address.data(), address.size());
  result.spread_v4();
  return result;
}

SocketAddress SocketAddress::v6(std::span<const std::uint8_t, 16> address, std::uint16_t port_be) {
  SocketAddress result;
  result.raw_.sin6_family = AF_INET6;
  result.raw_.sin6_port = port_be;
  std::memcpy(&result.raw_.sin6_addr, address.data(), address.size());
  return result;
}

SocketAddress SocketAddress::mapped_v4(std::span<const std::uint8_t, 4> address,
                                       std::uint16_t port_be) {
  Address bytes{};
  std::copy(mapped_prefix.begin(), mapped_prefix.end(), bytes.begin());
  std::copy(address.begin(), address.end(), bytes.begin() + mapped_prefix.size());
  return v6(bytes, port_be);
}

Address SocketAddress::uniform() const {
  Address bytes{};
  std::memcpy(bytes.data(), &raw_.sin6_addr, bytes.size());
  return bytes;
}

std::array<std::uint8_t, 4> SocketAddress::ipv4() const {
  std::array<std::uint8_t, 4> bytes{};
  std::memcpy(bytes.data(), &raw_.sin6_flowinfo, bytes.size());
  return bytes;
}

bool SocketAddress::is_mapped_v4() const {
  return family() == AF_INET6 &&
         std::memcmp(&raw_.sin6_addr, mapped_prefix.data(), mapped_prefix.size()) == 0;
}

void SocketAddress::normalise() {
  if (is_mapped_v4()) {
    std::memcpy(&raw_.sin6_flowinfo, raw_.sin6_addr.s6_addr + mapped_prefix.size(), 4);
    raw_.sin6_family = AF_INET;
  }
  if (family() == AF_INET) spread_v4();
}

void SocketAddress::spread_v4() {
  Address bytes{};
  std::memcpy(bytes.data(), &raw_.sin6_flowinfo, 4);
  std::memcpy(&raw_.sin6_addr, bytes.data(), bytes.size());
  raw_.sin6_scope_id = 0;
}

std::optional<SocketAddress> parse_address(std::string_view text, std::uint16_t port) {
  std::array<char, INET6_ADDRSTRLEN + 1> copy{};
  if (text.size() >= copy.size()) return std::nullopt;
  std::copy(text.begin(), text.end(), copy.begin());
  Address bytes{};
  const int family = text.find(':') == std::string_view::npos ? AF_INET : AF_INET6;
  if (inet_pton(family, copy.data(), bytes.data()) != 1) return std::nullopt;
  if (family == AF_INET6) return SocketAddress::v6(bytes, htons(port));
  return SocketAddress::v4(std::span(bytes).first<4>(), htons(port));
}

}  // namespace vrox
