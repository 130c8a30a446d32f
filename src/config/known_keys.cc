#include "config/known_keys.h"

#include <algorithm>
#include <span>

#include "acl/rule.h"
#include "config/keys.h"
#include "config/syntax.h"
#include "dns/rule.h"
#include "httpmod/module.h"
#include "main/helpers.h"
#include "tcp/module.h"

namespace vrox::config {

namespace {

// Keywords that stand for more, or less, than what is written.
constexpr std::array<KnownKey, 8> other_spellings{{
    {"destAddr", "destAddr"},
    {"destAddr", "destAddr4"},
    {"destAddr", "destAddr6"},
    {"hdr_key(", "hdr_key(NAME)"},
    {"http_heade", "http_header"},
    {"ur", "uri"},
    {"ur", "url"},
    {acl::rule_continue_match, "continue_match:KEY"},
}};

void add(std::vector<KnownKey>& list, std::string_view keyword) {
  const std::size_t before = list.size();
  for (const KnownKey& other : other_spellings) {
    if (other.keyword == keyword) list.push_back(other);
  }
  if (list.size() == before) list.push_back({keyword, keyword});
}

void add(std::vector<KnownKey>& list, std::span<const std::string_view> keywords) {
  for (const std::string_view keyword : keywords) add(list, keyword);
}

void add_rule_keys(std::vector<KnownKey>& list) {
  add(list, acl::rule_keywords());
  add(list, acl::rule_continue_match);
  add(list, acl::condition_keywords());
}

bool takes_conditions(SectionKind section) {
  return section == SectionKind::tcp_global || section == SectionKind::tcp_acl;
}

bool is_spelled(std::string_view bare, const KnownKey& key) {
  if (key.keyword.ends_with('(')) return bare.ends_with(')');
  return equals_ignoring_case(bare, key.spelling);
}

}  // namespace

std::vector<KnownKey> known_keys(SectionKind section) {
  std::vector<KnownKey> list;
  switch (section) {
    case SectionKind::tcp_global:
      add(list, tcp_global_keywords());
      add_rule_keys(list);
      break;
    case SectionKind::tcp_acl:
      add_rule_keys(list);
      break;
    case SectionKind::tcp_proxy:
      add(list, tcp::module_keywords());
      break;
    case SectionKind::http_mod:
      add(list, httpmod::directive_keywords());
      break;
    case SectionKind::http_udp:
      add(list, http_udp_keywords());
      break;
    case SectionKind::dns_global:
      add(list, dns_global_keywords());
      break;
    case SectionKind::dns_acl:
      add(list, dns::dns_rule_keywords());
      break;
    case SectionKind::socks5:
      add(list, socks5_keywords());
      break;
    case SectionKind::tun:
      add(list, tun_keywords());
      break;
  }
  return list;
}

std::string_view bare_key(SectionKind section, std::string_view key) {
  key = key.substr(0, key.find_last_not_of(whitespace) + 1);
  if (!takes_conditions(section)) return key;
  if (key.ends_with('!')) key.remove_suffix(1);
  if (is_key(key, acl::rule_continue_match)) key.remove_prefix(acl::rule_continue_match.size());
  return key;
}

std::optional<Recognised> recognise(SectionKind section, std::string_view bare) {
  std::optional<Recognised> found;
  for (const KnownKey& key : known_keys(section)) {
    if (found ? key.keyword != found->key.keyword : !is_key(bare, key.keyword)) continue;
    if (!found) found = Recognised{.key = key};
    if (!is_spelled(bare, key)) continue;
    return Recognised{.key = key, .as_spelled = true};
  }
  return found;
}

}  // namespace vrox::config
