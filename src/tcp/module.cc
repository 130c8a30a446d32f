#include "tcp/module.h"

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "acl/resolve.h"
#include "config/key_table.h"
#include "config/syntax.h"
#include "httpmod/modify.h"
#include "main/helpers.h"

namespace vrox::tcp {

constinit List<Module> modules;

namespace {

using config::KeyResult;
using config::known_if;

constexpr std::uint8_t auth_version = 1;  // RFC 1929
constexpr std::size_t max_auth_part = 255;

// Destinations ---------------------------------------------------------------

SocketAddress upstream_address(const dns::ResolvedAddress& found, std::uint16_t port_be) {
  const std::span bytes(found.bytes);
  return found.type == dns::type_a ? SocketAddress::mapped_v4(bytes.first<4>(), port_be)
                                   : SocketAddress::v6(bytes, port_be);
}

// The record types that `destAddr`, `destAddr4` and `destAddr6` ask for, in order.
std::span<const std::uint16_t> wanted_types(std::string_view key) {
  constexpr std::size_t family_letter = std::string_view("destAddr").size();
  static constexpr std::array<std::uint16_t, 2> types{dns::type_aaaa, dns::type_a};
  const std::span<const std::uint16_t> all(types);
  const char family = key.size() > family_letter ? key[family_letter] : '\0';
  if (family == '6') return all.first(1);
  return family == '4' ? all.last(1) : all;
}

bool add_resolved(std::string_view key, const config::AddressPort& host, List<Destination>& list) {
  std::vector<dns::ResolvedAddress> found;
  for (const std::uint16_t type : wanted_types(key)) {
    // One family without an answer leaves the other; what counts is the sum.
    (void)acl::resolve_at_load(found, host.address, type);
  }
  for (const dns::ResolvedAddress& address : found) {
    auto* destination = new Destination;
    destination->address = upstream_address(address, htons(host.port));
    list.push_back(destination);
  }
  return !found.empty();
}

// Destinations that are no address. Compared on the word's length: no host name
// has an underscore, and a blank may stand behind the word.
struct SpecialDestination {
  std::string_view word;
  bool Destination::*flag;
};
constexpr std::array<SpecialDestination, 2> special_destinations{{
    {"original_dst", &Destination::original_dst},
    {"deny_network", &Destination::deny_network},
}};

// Keys -----------------------------------------------------------------------

KeyResult add_destination(std::string_view key, std::string_view value, Module& module) {
  return known_if(add_destinations(key, value, module.destination_list));
}

KeyResult set_tunnel_key(std::string_view, std::string_view value, Module& module) {
  module.tunnel_key = httpmod::derive_tunnel_key(value);
  return KeyResult::applied;
}

KeyResult set_tunnel_proxy(std::string_view, std::string_view value, Module& module) {
  const bool over_tunnel = equals_ignoring_case(value, "httpOverTunnel");
  if (!over_tunnel && !equals_ignoring_case(value, "on")) return KeyResult::unknown;
  module.tunnel_proxy = true;
  if (over_tunnel) module.http_over_tunnel = true;
  module.wants_tunnel_request = true;
  return KeyResult::applied;
}

KeyResult set_tcp_option(std::string_view, std::string_view value, Module& module) {
  if (config::has_option(value, "TFO")) module.fast_open = true;
  return KeyResult::applied;
}

KeyResult set_socks5_client(std::string_view, std::string_view value, Module& module) {
  module.socks5_client = true;
  if (equals_ignoring_case(value, "on")) return KeyResult::applied;
  return known_if(parse_user_pass(value, module.socks5_auth));
}

KeyResult set_tunnel_http_mod(std::string_view, std::string_view value, Module& module) {
  module.tunnel_http_mod_name = value;
  module.wants_tunnel_request = true;
  return KeyResult::applied;
}

KeyResult set_http_mod(std::string_view, std::string_view value, Module& module) {
  module.http_mod_name = value;
  return KeyResult::applied;
}

constexpr std::array module_keys{
    config::Key<Module>{"destAddr", add_destination},
    config::Key<Module>{"tunnel_encrypt", set_tunnel_key},
    config::Key<Module>{"tunnel_proxy", set_tunnel_proxy},
    config::Key<Module>{"tcp_option", set_tcp_option},
    config::Key<Module>{"socks5_client", set_socks5_client},
    config::Key<Module>{"tunnelHttpMod", set_tunnel_http_mod},
    config::Key<Module>{"httpMod", set_http_mod},
};
static_assert(config::all_reachable(module_keys));

}  // namespace

bool add_destinations(std::string_view key, std::string_view value, List<Destination>& list) {
  for (const SpecialDestination& special : special_destinations) {
    if (!starts_with_ignoring_case(value, special.word)) continue;
    auto* destination = new Destination;
    destination->*special.flag = true;
    list.push_back(destination);
    return true;
  }
  const std::optional<config::AddressPort> host = config::split_address_port(value);
  return host && add_resolved(key, *host, list);
}

bool parse_user_pass(std::string_view value, Buffer& message) {
  const std::size_t blank = value.find(' ');
  if (blank == std::string_view::npos) return false;
  const std::string_view user = value.substr(0, blank);
  const std::string_view password = value.substr(blank + 1);
  if (user.size() > max_auth_part || password.size() > max_auth_part) return false;
  const std::array<char, 2> head{static_cast<char>(auth_version), static_cast<char>(user.size())};
  const char password_length = static_cast<char>(password.size());
  return message.assign({head.data(), head.size()}) && message.append(user) &&
         message.append({&password_length, 1}) && message.append(password);
}

KeyResult apply_module_key(std::string_view key, std::string_view value, Module& module) {
  return config::apply_key(module_keys, key, value, module);
}

std::span<const std::string_view> module_keywords() { return config::keywords_of<module_keys>(); }

bool prepare_tunnel_request(Module& module) {
  if (!module.tunnel_request.assign(connect_template)) {
    std::perror("malloc()");
    return false;
  }
  return module.tunnel_http_mod == nullptr ||
         httpmod::modify_request_text(module.tunnel_request, *module.tunnel_http_mod);
}

Module* new_socks5_upstream(std::string_view value) {
  auto module = std::make_unique<Module>();
  module->socks5_client = true;
  const std::size_t blank = value.find(' ');
  if (!add_destinations("destAddr", value.substr(0, blank), module->destination_list)) {
    return nullptr;
  }
  if (blank != std::string_view::npos &&
      !parse_user_pass(value.substr(blank + 1), module->socks5_auth)) {
    return nullptr;
  }
  return module.release();
}

}  // namespace vrox::tcp
