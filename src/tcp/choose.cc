#include "tcp/choose.h"

#include <cerrno>

#include "tcp/client.h"
#include "tcp/global.h"

namespace vrox::tcp {

namespace {

// `limit_client_ip`: at most so many addresses, and so many sessions of each.
bool count_client(TcpSession& session) {
  acl::Rule& rule = *session.rule;
  if (rule.max_clients == 0) return true;
  session.counted_client = rule.clients.admit(session.client_addr.uniform(), rule.max_clients,
                                              rule.max_sessions_per_client);
  return session.counted_client;
}

void discount_client(TcpSession& session) {
  session.rule->clients.release(session.client_addr.uniform());
  session.counted_client = false;
}

// A session that was sent to the very socket it came in on would be accepted
// again, and so on until the table is full.
bool would_meet_itself(const TcpSession& session, const SocketAddress& to) {
  if (global.listen_fd < 0 || to.port() != global.listen_port) return false;
  SocketAddress local;
  if (!client_local_address(session, local)) return false;
  if (local.port() != global.listen_port) return false;
  SocketAddress wanted = to;
  local.normalise();
  wanted.normalise();
  return local.uniform() == wanted.uniform();
}

}  // namespace

bool choose_upstream(TcpSession& session) {
  acl::Rule& rule = *session.rule;
  if (rule.modules.empty()) return false;
  if (!count_client(session)) return false;

  const acl::ModuleRef& chosen = pick_least_used(
      rule.modules, [](acl::ModuleRef& ref) -> std::int32_t& { return ref.module->use_count; });
  Module& module = *chosen.module;
  session.module = &module;

  if (module.destinations.empty() || module.destinations.head->deny_network) return false;
  Destination& destination = pick_least_used(
      module.destinations, [](Destination& entry) -> std::int32_t& { return entry.use_count; });
  session.destination = &destination;
  session.connect_addr = destination.original_dst ? &session.original_dst : &destination.address;
  return connect_upstream(session);
}

bool connect_upstream(TcpSession& session) {
  const SocketAddress& to = *session.connect_addr;
  if (would_meet_itself(session, to)) return false;
  if (!dial(session.upstream, to, session.module->fast_open)) {
    // Whoever is accepted now would fare no better.
    if (errno == EMFILE || errno == ENFILE) session_starve();
    return false;
  }
  client_apply_keep_alive(session);
  set_no_delay(session.upstream.fd);
  return true;
}

void release_upstream(TcpSession& session) {
  if (session.module != nullptr) --session.module->use_count;
  if (session.destination != nullptr) --session.destination->use_count;
  if (session.counted_client) discount_client(session);
  session.module = nullptr;
  session.destination = nullptr;
  session.connect_addr = nullptr;
}

}  // namespace vrox::tcp
