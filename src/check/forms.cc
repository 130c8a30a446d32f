#include "check/forms.h"

#include <array>

namespace vrox::check {

namespace {

struct Form {
  std::string_view keyword;
  std::string_view text;
};

constexpr std::string_view listener = "a numeric ADDRESS:PORT, IPv6 without brackets (:::1080)";
constexpr std::string_view pattern = "a POSIX extended regular expression";
constexpr std::string_view arrow = "OLD -> NEW";
constexpr std::string_view domain = "a host name that is known, or NAME/PREFIX";

constexpr std::array<Form, 23> forms{{
    {"tcp_listen", listener},
    {"udp_tproxy_listen", listener},
    {"udp_socks5_listen", listener},
    {"dns_listen", listener},
    {"socks5_listen", listener},
    {"socks5_dns", listener},
    {"maxData_savePath", "SECONDS, a blank and a path"},
    {"destAddr", "HOST:PORT, original_dst or deny_network"},
    {"socks5_set_dst", "HOST:PORT, which a blank and \"USER PASSWORD\" may follow"},
    {"user_pass", "USER, a blank and PASSWORD"},
    {"socks5_client", "on, or USER, a blank and PASSWORD"},
    {"tunnel_proxy", "on or httpOverTunnel"},
    {"src_ip_byDomain", domain},
    {"dst_ip_byDomain", domain},
    {"hdr_key(", "a POSIX extended regular expression, and is written hdr_key(NAME)"},
    {"reg_string", pattern},
    {"ur", pattern},
    {"query_type", "a record type such as A, AAAA or MX"},
    {"reg_domain", pattern},
    {"modify_all_request", "on"},
    {"strrep", arrow},
    {"regrep", arrow},
    {"save_line", "NAME -> MINUTES"},
}};

}  // namespace

std::string_view form_of(std::string_view keyword) {
  for (const Form& form : forms) {
    if (form.keyword == keyword) return form.text;
  }
  return {};
}

}  // namespace vrox::check
