// A query that is being looked up: one slot of the query table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "dns/message.h"
#include "dns/rule.h"
#include "main/address.h"
#include "main/buffer.h"
#include "main/links.h"
#include "main/loop.h"
#include "tcp/upstream.h"

namespace vrox::dns {

constexpr std::size_t length_prefix = 2;  // of a message over TCP

// Claimed free, from any thread, and filled: message, its length, the addresses,
// the way back; from dns_query_start() on the DNS loop's alone.
struct DnsQuery {
  Mail mail;  // hands a slot that another service filled to the DNS loop
  Links<DnsQuery> open;
  Links<DnsQuery> unsettled;  // may have got all of its HTTP answer
  std::int64_t settle_at_ms = 0;

  // The way back to a client that did not come by the listener; null: it did.
  void (*reply)(const DnsQuery& query, std::span<const std::uint8_t> message) = nullptr;
  SocketAddress client;
  SocketAddress local;  // where the query was sent to

  // The message as it goes over TCP, its length in front.
  std::array<std::uint8_t, length_prefix + max_message> wire{};
  std::uint16_t message_length = 0;

  std::uint8_t send_key = 0;  // running keys of the tunnel cipher
  std::uint8_t receive_key = 0;
  bool in_use = false;
  bool readable = false;         // cleared by EAGAIN only: an edge is told once
  std::uint32_t idle_ticks = 0;  // sweeps since the upstream last gave a sign

  DnsRule* rule = nullptr;                  // null until matched
  tcp::Destination* destination = nullptr;  // null until chosen
  tcp::Module* socks5 = nullptr;            // of a rule with a SOCKS5 upstream
  tcp::Destination* socks5_destination = nullptr;
  tcp::Upstream upstream;
  Buffer tunnel_request;    // for the upstream proxy
  Buffer request;           // what is not sent as it stands in `wire`
  std::string_view unsent;  // of one of the two
  Buffer received;          // of an answer that did not come in one piece

  [[nodiscard]] std::span<std::uint8_t, max_message> message_room() {
    return std::span(wire).subspan<length_prefix, max_message>();
  }
  [[nodiscard]] std::span<const std::uint8_t> message() const {
    return std::span(wire).subspan(length_prefix, message_length);
  }
};

}  // namespace vrox::dns
