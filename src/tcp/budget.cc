#include "tcp/budget.h"

#include "tcp/relay.h"

namespace vrox::tcp {

namespace {

constexpr std::size_t budget = std::size_t{256} * 1024 * 1024;
// A small head, what waits for a slow upstream, and the read that came on top.
constexpr std::size_t free_of_charge = max_c2s_pending + 2 * relay_buffer_size;

constinit std::size_t charged_total = 0;

std::size_t price(const TcpSession& session, std::size_t about_to_add) {
  const std::size_t held = session.request_buf.size() + session.c2s_pending.size() + about_to_add;
  return held > free_of_charge ? held - free_of_charge : 0;
}

}  // namespace

bool charge(TcpSession& session, std::size_t about_to_add) {
  const std::size_t wanted = price(session, about_to_add);
  const std::size_t others = charged_total - session.charged;
  if (wanted > 0 && wanted > budget - others) return false;
  charged_total = others + wanted;
  session.charged = static_cast<std::uint32_t>(wanted);
  return true;
}

void discharge(TcpSession& session) {
  if (session.charged != 0) (void)charge(session);
}

}  // namespace vrox::tcp
