#include "tcp/request.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "acl/match.h"
#include "httpmod/cipher.h"
#include "httpmod/modify.h"
#include "httpmod/request.h"
#include "tcp/budget.h"
#include "tcp/choose.h"
#include "tcp/client.h"
#include "tcp/global.h"
#include "tcp/quota.h"
#include "tcp/relay.h"
#include "tcp/subject.h"
#include "tcp/tunnel.h"

namespace vrox::tcp {

namespace {

// What one read brought: of a socket as much as the relay moves at a time, of a
// flow whole segments, which are there already.
constexpr std::size_t max_segment = 65536;
constinit std::array<char, max_segment> chunk{};

std::span<char> room_of(const TcpSession& session) {
  return std::span(chunk).first(client_is_socket(session) ? relay_buffer_size : chunk.size());
}

bool gather(TcpSession& session, std::string_view bytes) {
  return charge(session, bytes.size()) && session.request_buf.append(bytes);
}

// Not while bytes wait that were enciphered for the upstream they were meant for.
bool rematch_due(const TcpSession& session) {
  if (session.rule == nullptr || session.rule->rematch.empty() || session.rematched) return false;
  return session.c2s_left() == 0 || !session.module->tunnel_key.on();
}

bool rules_ask_for_host(const TcpSession& session) {
  if (session.rule == nullptr) {
    const auto& rules = acl::rule_lists.on_request;
    return std::any_of(rules.begin(), rules.end(),
                       [](const acl::Rule& rule) { return rule.asks_host; });
  }
  const auto& listed = session.rule->rematch;
  return rematch_due(session) &&
         std::any_of(listed.begin(), listed.end(),
                     [](const acl::RuleRef& ref) { return ref.rule->asks_host; });
}

// Rules that ask for the server name need the ClientHello whole; large ones come
// in two segments.
bool awaits_server_name(const TcpSession& session) {
  return acl::is_incomplete_client_hello(session.request_buf.view()) && rules_ask_for_host(session);
}

// Neither a request, nor part of one, nor a reason to look at the rules again.
bool passes_through(const TcpSession& session, std::string_view bytes) {
  return session.request_buf.empty() && session.rule != nullptr && !rematch_due(session) &&
         httpmod::method_code(bytes) == httpmod::not_http;
}

// At most once: a rule's `reMatch` list is asked on the first request data that
// come under the rule.
bool rematch_rule(TcpSession& session) {
  session.rematched = true;
  acl::Rule* rule = acl::rematch(subject_of(session), *session.rule);
  if (rule == nullptr) return true;
  session_drop_upstream(session);
  session.rule = rule;
  return choose_upstream(session);
}

bool decide_rule(TcpSession& session) {
  if (rematch_due(session)) return rematch_rule(session);
  if (session.rule != nullptr) return true;
  session.rule = acl::match_on_request(subject_of(session), acl::rule_lists.on_request.head);
  return choose_upstream(session);
}

bool rewrite(TcpSession& session) {
  if (session.method == httpmod::not_http) return true;
  const Module& module = *session.module;
  const bool connects = session.method == httpmod::method_connect;
  if (connects && module.http_over_tunnel && !module.tunnel_request.empty()) return true;
  httpmod::HttpModModule* mod = connects ? module.tunnel_http_mod : module.http_mod;
  if (mod == nullptr) return true;
  const httpmod::RequestView view{.request = session.request_buf,
                                  .method = session.method,
                                  .destination = session.original_dst,
                                  .running_key = session.c2s_cipher_state,
                                  .listen_port = global.listen_port};
  return httpmod::modify_request(view, *mod, connects ? module.tunnel_key : httpmod::TunnelKey{});
}

void encipher(TcpSession& session, std::span<char> bytes) {
  const httpmod::TunnelKey key = session.module->tunnel_key;
  if (!key.on()) return;
  session.c2s_cipher_state = httpmod::tunnel_encode(bytes, key, session.c2s_cipher_state);
}

void handle_request(TcpSession& session) {
  session.method = httpmod::method_code(session.request_buf.view());
  if (!decide_rule(session)) return session_close(session, both_sides);
  if (!rewrite(session)) return session_close(session, client_side);
  const auto plain = prepare_tunnel(session);
  if (!plain) return session_close(session, server_side);
  Buffer request = std::move(session.request_buf);
  encipher(session, request.span().subspan(*plain));
  forward_to_server(session, request.view());
  if (session.in_use() && !charge(session)) session_close(session, both_sides);
}

void take_chunk(TcpSession& session, std::span<char> bytes) {
  const std::string_view text{bytes.data(), bytes.size()};
  // The upstream is gone and only the client's side drains: nobody wants these.
  if (session.module != nullptr && session.upstream.fd < 0) return;
  if (passes_through(session, text)) {
    session.method = httpmod::not_http;
    encipher(session, bytes);
    return forward_to_server(session, text);
  }
  if (!gather(session, text)) return session_close(session, client_side);
  if (!httpmod::request_complete(session.request_buf.view(), session.scan)) return;
  if (awaits_server_name(session)) return;
  session.scan = {};
  handle_request(session);
}

// What is in memory already, and only passes through: from where it lies. Where a
// rule counts bytes it is cut as a read is.
std::size_t pass_on(TcpSession& session) {
  if (session.module == nullptr || session.module->tunnel_key.on() || session.upstream.fd < 0) {
    return 0;
  }
  std::string_view bytes = client_at_hand(session);
  if (bytes.empty() || !passes_through(session, bytes)) return 0;
  if (is_limited(*session.rule)) bytes = bytes.substr(0, max_segment);
  session.idle_ticks = 0;
  session.method = httpmod::not_http;
  client_took(session, bytes.size());
  forward_to_server(session, bytes);
  return bytes.size();
}

}  // namespace

bool client_bytes_are_plain(const TcpSession& session) {
  if (!client_is_socket(session)) return false;
  if (session.module == nullptr || !session.request_buf.empty() || rematch_due(session))
    return false;
  const Module& module = *session.module;
  return !module.tunnel_key.on() && module.http_mod == nullptr && module.tunnel_http_mod == nullptr;
}

std::size_t read_client_request(TcpSession& session) {
  if (const std::size_t count = pass_on(session); count != 0) return count;
  const std::span<char> room = room_of(session);
  const ssize_t got = client_read(session, room);
  if (got > 0) {
    session.idle_ticks = 0;
    const auto count = static_cast<std::size_t>(got);
    if (client_is_socket(session)) {
      if (session.client_input.took(count)) session_ask_soon(session);
      // What is left, were it only the end of the stream, is told on registration.
      if (count < room.size() && session.client_mask == 0) session.client_input.emptied();
    }
    take_chunk(session, std::span(chunk).first(count));
    return count;
  }
  if (got == -1 && errno == EINTR) return 0;
  session.client_input.emptied();
  if (got == 0) session.client_input.ended();
  if (got == 0 || errno != EAGAIN) session_close(session, client_side);
  return 0;
}

}  // namespace vrox::tcp
