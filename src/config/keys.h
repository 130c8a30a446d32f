// The keys of the sections that fill one record each. Several act at once: the
// listeners, the DNS cache and the TUN device are opened while the file is read.
#pragma once

#include <span>
#include <string_view>

#include "config/key_table.h"

namespace vrox::config {

// The views of `value`, which is followed by a terminator, may be kept.
[[nodiscard]] KeyResult apply_tcp_global_key(std::string_view key, std::string_view value);
[[nodiscard]] KeyResult apply_http_udp_key(std::string_view key, std::string_view value);
[[nodiscard]] KeyResult apply_dns_global_key(std::string_view key, std::string_view value);
[[nodiscard]] KeyResult apply_socks5_key(std::string_view key, std::string_view value);
// An unknown key has failed here: the section stops the load without a word.
[[nodiscard]] KeyResult apply_tun_key(std::string_view key, std::string_view value);

// What they know, in table order; tcp::Global behind its own also takes a rule's keys.
[[nodiscard]] std::span<const std::string_view> tcp_global_keywords();
[[nodiscard]] std::span<const std::string_view> http_udp_keywords();
[[nodiscard]] std::span<const std::string_view> dns_global_keywords();
[[nodiscard]] std::span<const std::string_view> socks5_keywords();
[[nodiscard]] std::span<const std::string_view> tun_keywords();

}  // namespace vrox::config
