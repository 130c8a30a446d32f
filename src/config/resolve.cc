#include "config/resolve.h"

#include <cstdio>
#include <string_view>

#include "acl/rule.h"
#include "dns/rule.h"
#include "httpmod/module.h"
#include "httpudp/global.h"
#include "main/helpers.h"
#include "tcp/module.h"

namespace vrox::config {

namespace {

template <class T>
T* find_named(const List<T>& list, std::string_view name) {
  for (T& element : list) {
    if (element.name == name) return &element;
  }
  return nullptr;
}

template <class Visit>
bool for_each_rule(Visit visit) {
  for (acl::Rule& rule : acl::rule_lists.at_connect) {
    if (!visit(rule)) return false;
  }
  for (acl::Rule& rule : acl::rule_lists.on_request) {
    if (!visit(rule)) return false;
  }
  return visit(*acl::rule_lists.fallback);
}

bool resolve_includes(acl::Rule& rule, Watcher& watcher) {
  for (acl::Condition& condition : rule.conditions) {
    if (condition.kind != acl::ConditionKind::include_module) continue;
    condition.included = find_rule(condition.rule_name);
    if (condition.included != nullptr) continue;
    if (!watcher.on_problem({Fault::included_rule, rule.name, condition.rule_name})) return false;
  }
  return true;
}

// Names are separated by single blanks, so two of them enclose a name that no
// rule can have.
bool resolve_rematch(acl::Rule& rule, Watcher& watcher) {
  rule.rematch = {};
  if (rule.rematch_names.data() == nullptr) return true;
  std::string_view rest = rule.rematch_names;
  for (;;) {
    const std::size_t blank = rest.rfind(' ');
    const std::string_view name = rest.substr(blank + 1);  // all of it when there is no blank
    acl::Rule* named = name.empty() ? nullptr : find_rule(name);
    if (named == nullptr && !watcher.on_problem({Fault::rematch_rule, rule.name, name})) {
      return false;
    }
    auto* ref = new acl::RuleRef;
    ref->rule = named;
    rule.rematch.push_front(ref);
    if (blank == std::string_view::npos) return true;
    rest = rest.substr(0, blank);
  }
}

// A name that was not given needs no module.
bool resolve_http_mod(Fault fault, std::string_view user, std::string_view name,
                      httpmod::HttpModModule*& module, Watcher& watcher) {
  if (name.data() == nullptr || module != nullptr) return true;
  module = find_named(httpmod::modules, name);
  return module != nullptr || watcher.on_problem({fault, user, name});
}

bool resolve_module(tcp::Module& module, Watcher& watcher) {
  if (!resolve_http_mod(Fault::http_mod, module.name, module.http_mod_name, module.http_mod,
                        watcher) ||
      !resolve_http_mod(Fault::tunnel_http_mod, module.name, module.tunnel_http_mod_name,
                        module.tunnel_http_mod, watcher)) {
    return false;
  }
  const bool unprepared = module.wants_tunnel_request && module.tunnel_request.empty();
  if (!unprepared || tcp::prepare_tunnel_request(module)) return true;
  return watcher.on_problem({Fault::tunnel_request, module.name, std::nullopt});
}

bool resolve_modules(acl::Rule& rule, Watcher& watcher) {
  for (acl::ModuleRef& ref : rule.module_refs) {
    ref.module = find_named(tcp::modules, ref.name);
    if (ref.module != nullptr) {
      if (!resolve_module(*ref.module, watcher)) return false;
    } else if (!watcher.on_problem({Fault::module, rule.name, ref.name})) {
      return false;
    }
  }
  return true;
}

bool resolve_services(Watcher& watcher) {
  const auto resolve = [&watcher](std::string_view name, httpmod::HttpModModule*& module) {
    return resolve_http_mod(Fault::service_http_mod, {}, name, module, watcher);
  };
  if (!resolve(httpudp::global.http_mod_name, httpudp::global.http_mod)) return false;
  for (dns::DnsRule& rule : dns::rules) {
    if (!resolve(rule.http_mod_name, rule.http_mod) ||
        !resolve(rule.tunnel_http_mod_name, rule.tunnel_http_mod)) {
      return false;
    }
  }
  return true;
}

bool condition_asks_host(const acl::Condition& condition) {
  if (condition.kind == acl::ConditionKind::include_module) {
    return condition.included != nullptr && condition.included->asks_host;
  }
  return condition.kind == acl::ConditionKind::hdr_key &&
         equals_ignoring_case(condition.header_name, "Host");
}

// Marks the rules that may look at the Host header, until no include passes the
// mark on any more; rules that include each other are no obstacle.
void mark_host_rules() {
  bool changed = true;
  while (changed) {
    changed = false;
    (void)for_each_rule([&](acl::Rule& rule) {
      for (const acl::Condition& condition : rule.conditions) {
        if (rule.asks_host || !condition_asks_host(condition)) continue;
        rule.asks_host = changed = true;
      }
      return true;
    });
  }
}

// Rings ----------------------------------------------------------------------

template <class T>
Ring<T> print_and_close(const List<T>& list) {
  for (const T& element : list) {
    const void* at = &element;
    (void)std::printf(element.next != nullptr ? "for set: %p\n" : "set: %p\n", at);
  }
  return close_ring(list);
}

void close_destinations(const List<tcp::Module>& modules) {
  for (tcp::Module& module : modules) module.destinations = close_ring(module.destination_list);
}

void close_modules(const List<acl::Rule>& rules) {
  for (acl::Rule& rule : rules) rule.modules = print_and_close(rule.module_refs);
}

}  // namespace

acl::Rule* find_rule(std::string_view name) {
  acl::Rule* rule = find_named(acl::rule_lists.at_connect, name);
  return rule != nullptr ? rule : find_named(acl::rule_lists.on_request, name);
}

bool resolve_references(Watcher& watcher) {
  const bool resolved = for_each_rule([&watcher](acl::Rule& rule) {
    return resolve_includes(rule, watcher) && resolve_rematch(rule, watcher) &&
           resolve_modules(rule, watcher);
  });
  if (!resolved) return false;
  mark_host_rules();
  return resolve_services(watcher);
}

void close_rings() {
  close_destinations(tcp::modules);
  close_modules(acl::rule_lists.at_connect);
  close_modules(acl::rule_lists.on_request);
  acl::Rule& fallback = *acl::rule_lists.fallback;
  fallback.modules = close_ring(fallback.module_refs);
  for (dns::DnsRule& rule : dns::rules) {
    rule.destinations = close_ring(rule.destination_list);
    close_destinations(rule.socks5_list);
    rule.socks5_modules = print_and_close(rule.socks5_list);
  }
  httpudp::Global& udp = httpudp::global;
  udp.destinations = close_ring(udp.destination_list);
  close_destinations(udp.socks5_list);
  udp.socks5_modules = print_and_close(udp.socks5_list);
}

}  // namespace vrox::config
