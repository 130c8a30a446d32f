#include "tun/bridge.h"

#include <netinet/in.h>

#include <algorithm>
#include <span>

#include "dns/rule.h"
#include "dns/server.h"
#include "event/device.h"
#include "event/loop.h"
#include "httpudp/service.h"
#include "main/address.h"
#include "tcp/relay.h"
#include "tcp/session.h"

namespace vrox::tun {

namespace {

// Kinds above are unassigned.
constexpr std::uint8_t last_kind = kind_code(ip_v6, udp_datagram);

constexpr std::uint16_t dns_port = 53;
constexpr std::size_t min_query = 12;  // a header
constexpr std::size_t max_query = 512;

SocketAddress socket_address(std::uint8_t version, const Address& address, std::uint16_t port_be) {
  if (version == ip_v6) return SocketAddress::v6(address, port_be);
  SocketAddress result = SocketAddress::v4(std::span(address).first<4>(), port_be);
  result.spread_v4();
  return result;
}

// ---- flows ----------------------------------------------------------------------

void start_session(TunFlow& flow) {
  tcp::TcpSession* session = tcp::tcp_drained() ? nullptr : tcp::claim_session();
  if (session == nullptr) return tun_flow_close(flow);
  const Route& route = flow.to_client;
  session->tun_flow = &flow;
  session->client_fd = event::tun_fd;
  session->client_addr =
      socket_address(route.version, route.destination, route.destination_port_be);
  session->original_dst = socket_address(route.version, route.source, route.source_port_be);
  flow.session = session;
  tcp::session_start(*session);
}

// The session goes on with what it still has for the server.
void forget_flow(TunFlow& flow, tcp::TcpSession& session) {
  tcp::session_close(session, tcp::client_side);
  if (flow.session == nullptr) return;  // it was over, and closed the flow
  session.tun_flow = nullptr;
  flow.session = nullptr;
}

// Something to read, the end of the stream, or a reset.
void read_flow(TunFlow& flow) {
  tcp::TcpSession* session = flow.session;
  if (session == nullptr) return;
  if (tun_flow_peek(flow) < 1) tcp::session_close(*session, tcp::client_side);
  if (!session->in_use()) return;
  session->client_input.suppose();
  tcp::session_on_readable(*session);
  if ((flow.flags & reset_by_client) != 0 && flow.session != nullptr) forget_flow(flow, *session);
  tcp::session_arm(*session);
}

void write_flow(TunFlow& flow) {
  if (flow.session == nullptr) return;
  tcp::TcpSession& session = *flow.session;
  tcp::session_flush(session);
  tcp::session_arm(session);
}

// ---- datagrams ------------------------------------------------------------------

// On the threads of the services: what comes back goes out as from where the
// client's datagram went to.
void send_reply(const SocketAddress& from, const SocketAddress& client, Bytes payload) {
  if (from.family() != client.family()) return;
  if (client.family() == AF_INET6) {
    tun_send_udp(ip_v6, from.uniform(), from.port_be(), client.uniform(), client.port_be(),
                 payload);
  } else {
    tun_send_udp(ip_v4, from.ipv4(), from.port_be(), client.ipv4(), client.port_be(), payload);
  }
}

void answer_query(const dns::DnsQuery& query, Bytes message) {
  send_reply(query.local, query.client, message);
}

void start_query(const SocketAddress& client, const SocketAddress& server, Bytes message) {
  if (dns::dns_drained() || message.size() < min_query || message.size() > max_query) return;
  dns::DnsQuery* query = dns::claim_query();
  if (query == nullptr) return;
  query->reply = answer_query;
  query->client = client;
  query->local = server;
  std::copy(message.begin(), message.end(), query->message_room().begin());
  query->message_length = static_cast<std::uint16_t>(message.size());
  dns::submit_query(*query);
}

void take_datagram(const event::TunEvent& event) {
  const SocketAddress client = socket_address(event.version(), event.source, event.source_port_be);
  const SocketAddress server =
      socket_address(event.version(), event.destination, event.destination_port_be);
  if (!dns::rules.empty() && event.destination_port_be == htons(dns_port)) {
    return start_query(client, server, event.payload);
  }
  // Dropped where nobody carries it, as datagrams are.
  (void)httpudp::httpudp_submit(client, server, event.payload, send_reply);
}

}  // namespace

void tun_packet_handler(TunRecord& record) {
  if (record.kind == 0 || record.kind > last_kind) return;
  switch (record.kind < 0x10 ? record.kind : record.kind >> 4) {
    case syn_received:
      return start_session(static_cast<TunFlow&>(record));
    case established:
      return read_flow(static_cast<TunFlow&>(record));
    case writable:
      return write_flow(static_cast<TunFlow&>(record));
    case udp_datagram:
      return take_datagram(static_cast<const event::TunEvent&>(record));
    default:
      return;
  }
}

}  // namespace vrox::tun
