#include "config/keys.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "acl/rule.h"
#include "config/effects.h"
#include "config/listen.h"
#include "config/syntax.h"
#include "dns/cache.h"
#include "dns/global.h"
#include "event/device.h"
#include "httpudp/global.h"
#include "main/helpers.h"
#include "main/timeouts.h"
#include "socks5/global.h"
#include "tcp/global.h"
#include "tcp/module.h"

namespace vrox::config {

namespace {

// Shared by the sections -----------------------------------------------------

template <auto Field, class Record>
KeyResult set_number(std::string_view, std::string_view value, Record& record) {
  record.*Field = to_number(value);
  return KeyResult::applied;
}

template <auto Field, class Record>
KeyResult set_text(std::string_view, std::string_view value, Record& record) {
  record.*Field = value;
  return KeyResult::applied;
}

template <auto Field, class Record>
KeyResult set_tunnel_key(std::string_view, std::string_view value, Record& record) {
  record.*Field = httpmod::derive_tunnel_key(value);
  return KeyResult::applied;
}

// A table has at least one slot.
template <class Record>
KeyResult set_max_sessions(std::string_view, std::string_view value, Record& record) {
  record.max_sessions = std::max(1, to_number(value));
  return KeyResult::applied;
}

// Flags are set and never cleared: a later line without the word changes nothing.
template <class Record>
KeyResult set_fast_open(std::string_view, std::string_view value, Record& record) {
  if (has_option(value, "TFO")) record.fast_open = true;
  return KeyResult::applied;
}

template <auto Field, SweepBit Service, class Record>
KeyResult set_section_timeout(std::string_view, std::string_view value, Record& record) {
  set_timeout(Service, to_number(value), record.*Field);
  return KeyResult::applied;
}

// A second one of the same kind takes the place of the first.
KeyResult take_descriptor(int opened, int& kept) {
  if (opened == -1) return KeyResult::failed;
  if (kept != -1) (void)::close(kept);
  kept = opened;
  return KeyResult::applied;
}

template <class Open>
KeyResult open_listener(const AddressPort& local, int& kept, Open open) {
  if (effects.open) return take_descriptor(open(local.address, local.port), kept);
  return known_if(parse_address(local.address, local.port).has_value());
}

KeyResult open_udp(const AddressPort& local, UdpListener kind, SweepBit service, int& kept,
                   std::int32_t& timeout) {
  const KeyResult result =
      open_listener(local, kept, [kind](std::string_view address, std::uint16_t port) {
        return open_udp_listener(address, port, kind);
      });
  if (result == KeyResult::applied && timeout == 0) set_timeout(service, 1, timeout);
  return result;
}

// tcp::Global ----------------------------------------------------------------

KeyResult open_tcp(std::string_view, std::string_view value, tcp::Global& tcp) {
  const std::optional<AddressPort> local = split_address_port(value);
  if (!local) return KeyResult::unknown;
  tcp.listen_port = local->port;
  if (tcp.timeout == 0) clear_sweep(SweepBit::tcp);
  return open_listener(*local, tcp.listen_fd, open_listen_socket);
}

KeyResult set_tcp_options(std::string_view key, std::string_view value, tcp::Global& tcp) {
  if (has_option(value, "TDA")) tcp.defer_accept = true;
  return set_fast_open(key, value, tcp);
}

KeyResult set_save_path(std::string_view, std::string_view value, tcp::Global& tcp) {
  const std::size_t blank = value.find(' ');
  if (blank == std::string_view::npos) return KeyResult::unknown;
  tcp.save_interval = to_number(value);
  tcp.save_path = value.substr(blank + 1);
  return KeyResult::applied;
}

constexpr std::array tcp_keys{
    Key<tcp::Global>{"tcp_listen", open_tcp},
    Key<tcp::Global>{"tcp_option", set_tcp_options},
    Key<tcp::Global>{"max_sessions", set_max_sessions},
    Key<tcp::Global>{"maxData_savePath", set_save_path},
};
static_assert(all_reachable(tcp_keys));

// httpUDP --------------------------------------------------------------------

KeyResult open_tproxy(std::string_view, std::string_view value, httpudp::Global& udp) {
  const std::optional<AddressPort> local = split_address_port(value);
  if (!local) return KeyResult::unknown;
  return open_udp(*local, UdpListener::transparent, SweepBit::http_udp, udp.tproxy_fd, udp.timeout);
}

KeyResult open_relay(std::string_view, std::string_view value, httpudp::Global& udp) {
  const std::optional<AddressPort> local = split_address_port(value);
  if (!local) return KeyResult::unknown;
  udp.relay_port_be = htons(local->port);
  return open_udp(*local, UdpListener::plain, SweepBit::http_udp, udp.socks5_fd, udp.timeout);
}

KeyResult add_destination(std::string_view key, std::string_view value, httpudp::Global& udp) {
  return known_if(tcp::add_destinations(key, value, udp.destination_list));
}

KeyResult add_socks5_upstream(std::string_view, std::string_view value, httpudp::Global& udp) {
  tcp::Module* upstream = tcp::new_socks5_upstream(value);
  if (upstream == nullptr) return KeyResult::unknown;
  udp.socks5_list.push_front(upstream);
  return KeyResult::applied;
}

constexpr std::array http_udp_keys{
    Key<httpudp::Global>{"udp_tproxy_listen", open_tproxy},
    Key<httpudp::Global>{"udp_socks5_listen", open_relay},
    Key<httpudp::Global>{"tcp_option", set_fast_open},
    Key<httpudp::Global>{"max_sessions", set_max_sessions},
    Key<httpudp::Global>{"destAddr", add_destination},
    Key<httpudp::Global>{"socks5_set_dst", add_socks5_upstream},
    // `http_header`, recognised by its first ten letters: files without the last one work.
    Key<httpudp::Global>{"http_heade", set_text<&httpudp::Global::http_header>},
    Key<httpudp::Global>{"header_host", set_text<&httpudp::Global::header_host>},
    Key<httpudp::Global>{"httpMod", set_text<&httpudp::Global::http_mod_name>},
    Key<httpudp::Global>{"timeout",
                         set_section_timeout<&httpudp::Global::timeout, SweepBit::http_udp>},
    Key<httpudp::Global>{"encrypt", set_tunnel_key<&httpudp::Global::tunnel_key>},
};
static_assert(all_reachable(http_udp_keys));

// dns::Global ----------------------------------------------------------------

KeyResult open_dns(std::string_view, std::string_view value, dns::Global& dns) {
  const std::optional<AddressPort> local = split_address_port(value);
  if (!local) return KeyResult::unknown;
  return open_udp(*local, UdpListener::plain, SweepBit::dns, dns.listen_fd, dns.timeout);
}

KeyResult load_cache(std::string_view, std::string_view value, dns::Global& dns) {
  if (!effects.open) return KeyResult::applied;
  if (!dns::dns_cache_load(value.data())) return KeyResult::unknown;
  dns.cache_path = value.data();
  if (dns.cache_saves == nullptr) dns.cache_saves = acl::new_shared_cell(0);
  return KeyResult::applied;
}

// Only the low byte is kept: 300 is stored as 44, and 256 as 0.
KeyResult set_cache_limit(std::string_view, std::string_view value, dns::Global& dns) {
  dns.cache_limit = static_cast<std::uint8_t>(to_number(value));
  return KeyResult::applied;
}

constexpr std::array dns_keys{
    Key<dns::Global>{"dns_listen", open_dns},
    Key<dns::Global>{"max_sessions", set_max_sessions},
    Key<dns::Global>{"cachePath", load_cache},
    Key<dns::Global>{"cacheLimit", set_cache_limit},
    Key<dns::Global>{"timeout", set_section_timeout<&dns::Global::timeout, SweepBit::dns>},
};
static_assert(all_reachable(dns_keys));

// socks5 ---------------------------------------------------------------------

KeyResult open_socks5(std::string_view, std::string_view value, socks5::Global& socks5) {
  const std::optional<AddressPort> local = split_address_port(value);
  if (!local) return KeyResult::unknown;
  if (socks5.handshake_timeout == 0) clear_sweep(SweepBit::socks5);
  return open_listener(*local, socks5.listen_fd, open_listen_socket);
}

KeyResult set_credentials(std::string_view, std::string_view value, socks5::Global& socks5) {
  Buffer message;
  if (!tcp::parse_user_pass(value, message)) return KeyResult::unknown;
  auto* kept = new char[message.size()];  // for ever, like the section
  std::ranges::copy(message.view(), kept);
  socks5.credentials = {kept, message.size()};
  return KeyResult::applied;
}

KeyResult set_resolver(std::string_view, std::string_view value, socks5::Global& socks5) {
  const std::optional<AddressPort> server = split_address_port(value);
  if (!server) return KeyResult::unknown;
  const std::optional<SocketAddress> address = parse_address(server->address, server->port);
  if (!address) return KeyResult::unknown;
  socks5.dns_address = address->family() == AF_INET6
                           ? *address
                           : SocketAddress::mapped_v4(address->ipv4(), address->port_be());
  if (!effects.open) return KeyResult::applied;
  const int fd = ::socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) std::perror("socket()");
  const KeyResult result = take_descriptor(fd, socks5.dns_fd);
  // Without a route yet the server connects again when it first asks.
  if (fd != -1) (void)::connect(fd, socks5.dns_address.raw(), socks5.dns_address.length());
  return result;
}

constexpr std::array socks5_keys{
    Key<socks5::Global>{"socks5_listen", open_socks5},
    Key<socks5::Global>{"tcp_option", set_fast_open},
    Key<socks5::Global>{"keepAlive_s", set_number<&socks5::Global::keep_alive>},
    Key<socks5::Global>{"handshake_timeout",
                        set_section_timeout<&socks5::Global::handshake_timeout, SweepBit::socks5>},
    Key<socks5::Global>{"user_pass", set_credentials},
    Key<socks5::Global>{"socks5_dns", set_resolver},
    Key<socks5::Global>{"max_sessions", set_max_sessions},
};
static_assert(all_reachable(socks5_keys));

// Tun ------------------------------------------------------------------------

using event::TunOption;

// The device's options are kept by the device itself.
struct TunSettings {};

template <TunOption Option>
KeyResult set_tun_number(std::string_view, std::string_view value, TunSettings&) {
  event::tun_set_option(Option, to_number(value));
  return KeyResult::applied;
}

template <TunOption Option>
KeyResult set_tun_text(std::string_view, std::string_view value, TunSettings&) {
  event::tun_set_option(Option, value);
  return KeyResult::applied;
}

constexpr std::string_view default_clone_device = "/dev/net/tun";

// "name" or "name path"; the device is there when the key has been read.
KeyResult open_device(std::string_view, std::string_view value, TunSettings&) {
  const std::size_t blank = value.find(' ');
  const bool has_path = blank != std::string_view::npos;
  event::tun_set_option(TunOption::device_path,
                        has_path ? value.substr(blank + 1) : default_clone_device);
  event::tun_set_option(TunOption::device_name, value.substr(0, blank));
  event::tun_set_option(TunOption::blocking, 1);
  if (effects.open) event::tun_fd = event::tun_open();
  return KeyResult::applied;
}

constexpr std::array tun_keys{
    Key<TunSettings>{"mtu", set_tun_number<TunOption::mtu>},
    Key<TunSettings>{"tun_addr6", set_tun_text<TunOption::addr6>},
    Key<TunSettings>{"tun_addr", set_tun_text<TunOption::addr4>},
    Key<TunSettings>{"unix_path", set_tun_text<TunOption::unix_path>},
    Key<TunSettings>{"tcp_WMax", set_tun_number<TunOption::tcp_wmax>},
    // Handed over as text, unlike tcp_WMax; the device takes the number from it.
    Key<TunSettings>{"tcp_RMax", set_tun_text<TunOption::tcp_rmax>},
    Key<TunSettings>{"tun_device", open_device},
};
static_assert(all_reachable(tun_keys));

}  // namespace

KeyResult apply_tcp_global_key(std::string_view key, std::string_view value) {
  if (const Key<tcp::Global>* row = find_key(tcp_keys, key)) {
    return row->apply(key, value, tcp::global);
  }
  return acl::apply_rule_key(key, value, tcp::global);
}

KeyResult apply_http_udp_key(std::string_view key, std::string_view value) {
  return apply_key(http_udp_keys, key, value, httpudp::global);
}

KeyResult apply_dns_global_key(std::string_view key, std::string_view value) {
  return apply_key(dns_keys, key, value, dns::global);
}

KeyResult apply_socks5_key(std::string_view key, std::string_view value) {
  return apply_key(socks5_keys, key, value, socks5::global);
}

KeyResult apply_tun_key(std::string_view key, std::string_view value) {
  TunSettings settings;
  const KeyResult result = apply_key(tun_keys, key, value, settings);
  return result == KeyResult::unknown ? KeyResult::failed : result;
}

std::span<const std::string_view> tcp_global_keywords() { return keywords_of<tcp_keys>(); }
std::span<const std::string_view> http_udp_keywords() { return keywords_of<http_udp_keys>(); }
std::span<const std::string_view> dns_global_keywords() { return keywords_of<dns_keys>(); }
std::span<const std::string_view> socks5_keywords() { return keywords_of<socks5_keys>(); }
std::span<const std::string_view> tun_keywords() { return keywords_of<tun_keys>(); }

}  // namespace vrox::config
