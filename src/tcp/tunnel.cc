#include "tcp/tunnel.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>

#include "httpmod/modify.h"
#include "httpmod/request.h"
#include "main/helpers.h"
#include "tcp/client.h"
#include "tcp/handshake.h"

namespace vrox::tcp {

namespace {

constexpr std::string_view connect_answer =
    "HTTP/1.1 200 Connection established\r\n"
    "Server: Pelorin Linux Network, (%>w<%)\r\n"
    "Connection: keep-alive\r\n\r\n";

bool socks5_due(const TcpSession& session) {
  return session.module->socks5_client && session.upstream.socks5_state != Socks5State::done;
}

bool tunnel_due(const TcpSession& session) {
  return session.module->tunnel_proxy && session.upstream.tunnel_state != TunnelState::open;
}

bool append_port(Buffer& text, std::uint16_t port) {
  std::array<char, sizeof ":65535"> digits{};
  const int length = std::snprintf(digits.data(), digits.size(), ":%u", unsigned{port});
  return text.append({digits.data(), static_cast<std::size_t>(length)});
}

// "a.b.c.d:port" or "[v6]:port".
bool append_original_dst(Buffer& text, const SocketAddress& address) {
  std::array<char, INET6_ADDRSTRLEN> digits{};
  if (address.family() == AF_INET6) {
    inet_ntop(AF_INET6, address.uniform().data(), digits.data(), digits.size());
    if (!text.append("[") || !text.append(digits.data()) || !text.append("]")) return false;
  } else {
    inet_ntop(AF_INET, address.ipv4().data(), digits.data(), digits.size());
    if (!text.append(digits.data())) return false;
  }
  return append_port(text, address.port());
}

bool names_port(std::string_view host) {
  const std::size_t colon = host.rfind(':');
  const std::size_t bracket = host.rfind(']');
  if (colon == std::string_view::npos) return false;
  return bracket == std::string_view::npos || colon > bracket;
}

// The host that a plain request is for, with its port.
bool append_request_host(Buffer& text, const TcpSession& session) {
  const std::string_view request = session.request_buf.view();
  const auto host = httpmod::find_request_host(
      request.substr(0, httpmod::find_head_end(request).value_or(request.size())));
  if (!host || host->empty() || !text.append(*host)) return false;
  if (session.method == httpmod::method_connect || names_port(*host)) return true;
  return append_port(text, session.original_dst.port());
}

bool build_tunnel_request(TcpSession& session, std::string_view host) {
  const Module& module = *session.module;
  Buffer encoded;
  if (module.tunnel_key.on()) {
    // Nothing was deciphered before the tunnel is open, so this is still the key
    // with which both directions begin; the far end learns it from here.
    const std::uint8_t starting_key = session.s2c_cipher_state;
    if (!httpmod::encode_host_base64(host, module.tunnel_key, starting_key, encoded)) {
      return false;
    }
    host = encoded.view();
  }
  Buffer& request = session.tunnel_request;
  if (!request.assign(module.tunnel_request.view())) return false;
  if (!replace_all(request, "[H]", host)) return false;
  const httpmod::HttpModModule* mod = module.tunnel_http_mod;
  return mod == nullptr || httpmod::put_saved_values(request, mod->saved_values);
}

// Whether the proxy can still be told where the tunnel is to lead.
bool tunnel_undecided(const TcpSession& session) {
  return session.module->tunnel_proxy && session.upstream.tunnel_state == TunnelState::request &&
         session.tunnel_request.empty();
}

// The client takes this for the far end's answer and goes on; its own CONNECT
// has served and is not sent.
bool answer_connect(TcpSession& session) {
  if (session.connect_head_len == 0) return true;
  const ssize_t sent = client_write(session, connect_answer);
  if (sent != static_cast<ssize_t>(connect_answer.size())) return false;
  session.c2s_pending.erase_front(session.connect_head_len);
  session.connect_head_len = 0;
  return true;
}

Handshake tunnel_step(TcpSession& session) {
  if (tunnel_undecided(session)) {
    Buffer host;
    if (!append_original_dst(host, session.original_dst) ||
        !build_tunnel_request(session, host.view())) {
      return Handshake::failed;
    }
  }
  const bool was_asking = session.upstream.tunnel_state == TunnelState::request;
  const Handshake result = tunnel_client_step(session.upstream, session.tunnel_request);
  const bool asked = was_asking && session.upstream.tunnel_state != TunnelState::request;
  if (!asked) return result;
  session.tunnel_request.reset();
  return answer_connect(session) ? result : Handshake::failed;
}

Handshake handshake_step(TcpSession& session) {
  if (!socks5_due(session)) return tunnel_step(session);
  return socks5_client_step(session.upstream, session.module->socks5_auth.view(),
                            session.original_dst);
}

}  // namespace

bool upstream_is_open(const TcpSession& session) {
  return !socks5_due(session) && !tunnel_due(session);
}

bool handshake_wants_output(const TcpSession& session) {
  if (socks5_due(session)) return session.upstream.socks5_state == Socks5State::greeting;
  return session.upstream.tunnel_state == TunnelState::request;
}

bool drive_handshake(TcpSession& session) {
  while (!upstream_is_open(session)) {
    const Upstream before = session.upstream;
    switch (handshake_step(session)) {
      case Handshake::done:
        break;
      case Handshake::writable:
        return false;
      case Handshake::readable:
        // After a message was sent the answer is looked for once: it may be there.
        if (before.socks5_state != session.upstream.socks5_state ||
            before.tunnel_state != session.upstream.tunnel_state) {
          break;
        }
        session.server_input.emptied();  // until more of it comes
        return false;
      case Handshake::failed:
        session_close(session, server_side);
        return false;
    }
  }
  return true;
}

std::optional<std::size_t> prepare_tunnel(TcpSession& session) {
  const Module& module = *session.module;
  if (!module.http_over_tunnel || session.method == httpmod::not_http) return 0;
  if (!tunnel_undecided(session) || session.c2s_left() != 0) return 0;
  Buffer host;
  if (!append_request_host(host, session) || !build_tunnel_request(session, host.view())) {
    return std::nullopt;
  }
  if (session.method != httpmod::method_connect) return 0;
  const std::string_view request = session.request_buf.view();
  const std::size_t head = httpmod::find_head_end(request).value_or(request.size());
  session.connect_head_len = static_cast<std::uint32_t>(head);
  return head;
}

}  // namespace vrox::tcp
