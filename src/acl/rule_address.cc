#include <array>
#include <charconv>
#include <span>

#include "acl/rule.h"
#include "main/helpers.h"

namespace vrox::acl {

namespace {

constexpr std::size_t ipv4_parts = 4;
constexpr std::size_t max_groups = 8;
constexpr std::size_t group_digits = 4;

Address parse_ipv4(std::string_view text) {
  Address address{};
  for (std::size_t part = 0; part < ipv4_parts; ++part) {
    address[part] = static_cast<std::uint8_t>(to_number(text));
    const std::size_t dot = text.find('.');
    if (dot == std::string_view::npos) break;
    text.remove_prefix(dot + 1);
  }
  return address;
}

// The groups between two ends of the text; what is no digit counts as 0.
struct Groups {
  std::array<std::uint16_t, max_groups> value{};
  std::size_t count = 0;
};

Groups parse_groups(std::string_view text) {
  Groups groups;
  while (!text.empty() && groups.count < max_groups) {
    const std::string_view digits = text.substr(0, group_digits);
    (void)std::from_chars(digits.data(), digits.data() + digits.size(),
                          groups.value[groups.count++], 16);
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) break;
    text.remove_prefix(colon + 1);
  }
  return groups;
}

void put_group(Address& address, std::size_t group, std::uint16_t value) {
  address[group * 2] = static_cast<std::uint8_t>(value >> 8);
  address[group * 2 + 1] = static_cast<std::uint8_t>(value);
}

Address parse_ipv6(std::string_view text) {
  const std::size_t gap = text.find("::");
  const Groups left = parse_groups(text.substr(0, gap));
  const Groups right =
      gap == std::string_view::npos ? Groups{} : parse_groups(text.substr(gap + 2));
  Address address{};
  for (std::size_t i = 0; i < left.count; ++i) put_group(address, i, left.value[i]);
  for (std::size_t i = 0; i < right.count; ++i) {
    put_group(address, max_groups - right.count + i, right.value[i]);
  }
  return address;
}

}  // namespace

Address parse_rule_address(std::string_view text) {
  return text.find(':') == std::string_view::npos ? parse_ipv4(text) : parse_ipv6(text);
}

}  // namespace vrox::acl
