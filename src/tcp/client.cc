#include "tcp/client.h"

#include <sys/socket.h>

#include <cerrno>

#include "tun/flow.h"

namespace vrox::tcp {

ssize_t client_read(TcpSession& session, std::span<char> buffer) {
  if (client_is_socket(session)) {
    return recv(session.client_fd, buffer.data(), buffer.size(), 0);
  }
  const ssize_t count = tun::tun_flow_read(*session.tun_flow, buffer);
  // The flow's handshake is not complete: nothing can have come.
  if (count == -1 && errno == EINVAL) errno = EAGAIN;
  return count;
}

ssize_t client_write(TcpSession& session, std::string_view bytes) {
  if (!client_is_socket(session)) return tun::tun_flow_write(*session.tun_flow, bytes);
  return send(session.client_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::string_view client_at_hand(const TcpSession& session) {
  if (client_is_socket(session)) return {};
  const tun::Bytes bytes = tun::tun_flow_at_hand(*session.tun_flow);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void client_took(TcpSession& session, std::size_t count) {
  tun::tun_flow_took(*session.tun_flow, count);
}

bool client_local_address(const TcpSession& session, SocketAddress& local) {
  socklen_t length = SocketAddress::size;
  return client_is_socket(session) && getsockname(session.client_fd, local.raw(), &length) == 0;
}

void client_apply_keep_alive(TcpSession& session) {
  if (!client_is_socket(session)) return;
  const std::int32_t idle = session.rule->keep_alive;
  if (idle == session.keep_alive || (idle != 0 && session.keeps_own_keep_alive)) return;
  set_keep_alive(session.client_fd, idle);
  session.keep_alive = idle;
}

void client_release_flow(TcpSession& session) {
  if (session.tun_flow == nullptr) return;
  tun::tun_flow_close(*session.tun_flow);
  session.tun_flow = nullptr;
}

}  // namespace vrox::tcp
