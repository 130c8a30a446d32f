#include "dns/template.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "httpmod/cipher.h"
#include "httpmod/modify.h"
#include "main/helpers.h"

namespace vrox::dns {

namespace {

constexpr std::string_view lookup_default =
    "[M] [U] [V]\r\nHost: [H]\r\nConnection: Close\r\n"
    "User-Agent: Pelorin Linux Network, (%>w<%)\r\n\r\n";

struct Replacement {
  std::string_view placeholder;
  std::string_view text;
};

// What a placeholder stands for is put in front to back: "[url]" may bring a "[D]".
bool put_in(Buffer& text, std::span<const Replacement> replacements) {
  return std::all_of(replacements.begin(), replacements.end(), [&text](const Replacement& r) {
    return replace_all(text, r.placeholder, r.text);
  });
}

std::uint32_t revision_of(const httpmod::HttpModModule* module) {
  return module == nullptr ? 0 : module->revision;
}

// The revision is taken behind the rewriting: that may capture the template's own
// header values.
bool finish(Buffer& text, httpmod::HttpModModule* module, RequestTemplate& built) {
  if (module != nullptr && !httpmod::modify_request_text(text, *module)) return false;
  built.text = std::move(text);
  built.revision = revision_of(module);
  return true;
}

// Without a `header_host` the "[H]" stays for the module to replace.
bool put_host(Buffer& text, const DnsRule& rule) {
  return rule.header_host.empty() || replace_all(text, "[H]", rule.header_host);
}

bool build_lookup(DnsRule& rule) {
  constexpr std::array<Replacement, 3> target{{
      {"[M]", "GET"},
      {"[url]", "/d?dn=[D]"},
      {"[U]", "/d?dn=[D]"},
  }};
  Buffer text;
  return text.assign(rule.lookup_template.empty() ? lookup_default : rule.lookup_template) &&
         replace_all(text, "[V]", "HTTP/1.1") && put_host(text, rule) && put_in(text, target) &&
         finish(text, rule.http_mod, rule.lookup);
}

bool build_tunnel(DnsRule& rule) {
  constexpr std::array<Replacement, 4> parts{{
      {"[V]", "HTTP/1.1"},
      {"[M]", "CONNECT"},
      {"[url]", "/"},
      {"[U]", "/"},
  }};
  Buffer text;
  return text.assign(rule.tunnel_template.empty() ? tcp::connect_template : rule.tunnel_template) &&
         put_in(text, parts) && (rule.tunnel_key.on() || put_host(text, rule)) &&
         finish(text, rule.tunnel_http_mod, rule.tunnel_request);
}

bool ends_target(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value <= ' ' || value == 0x7f;
}

}  // namespace

bool build_templates(DnsRule& rule) {
  return (rule.tcp_dns || build_lookup(rule)) && (!rule.tunnel || build_tunnel(rule));
}

bool refresh_templates(DnsRule& rule) {
  const bool lookup_current = rule.tcp_dns || rule.lookup.revision == revision_of(rule.http_mod);
  const bool tunnel_current =
      !rule.tunnel || rule.tunnel_request.revision == revision_of(rule.tunnel_http_mod);
  return (lookup_current || build_lookup(rule)) && (tunnel_current || build_tunnel(rule));
}

bool make_lookup_request(const DnsRule& rule, std::string_view name, Buffer& request) {
  if (std::any_of(name.begin(), name.end(), ends_target)) return false;
  return request.assign(rule.lookup.text.view()) && replace_all(request, "[D]", name);
}

bool make_tunnel_request(const DnsRule& rule, std::uint8_t running_key, Buffer& request) {
  if (!request.assign(rule.tunnel_request.text.view())) return false;
  if (!rule.tunnel_key.on()) return true;
  Buffer host;
  return httpmod::encode_host_base64(rule.header_host, rule.tunnel_key, running_key, host) &&
         replace_all(request, "[H]", host.view());
}

}  // namespace vrox::dns
