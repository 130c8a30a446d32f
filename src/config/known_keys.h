// The sections and what they take, for those who list keys or look for the nearest.
#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "config/blocks.h"

namespace vrox::config {

constexpr std::array<SectionKind, section_kinds> all_sections{
    SectionKind::tcp_global, SectionKind::tcp_acl,  SectionKind::tcp_proxy,
    SectionKind::http_mod,   SectionKind::http_udp, SectionKind::dns_global,
    SectionKind::dns_acl,    SectionKind::socks5,   SectionKind::tun,
};

struct KnownKey {
  std::string_view keyword;   // what a key has to begin with
  std::string_view spelling;  // what people write; one keyword may have several
};

// In the order in which the keywords are tried.
[[nodiscard]] std::vector<KnownKey> known_keys(SectionKind section);

// A key as it is looked up: without the blanks behind it, "!" and "continue_match:".
[[nodiscard]] std::string_view bare_key(SectionKind section, std::string_view key);

struct Recognised {
  KnownKey key;
  bool as_spelled = false;  // and not only by its beginning
};
[[nodiscard]] std::optional<Recognised> recognise(SectionKind section, std::string_view bare);

}  // namespace vrox::config
