// The clients: every way into the daemon, to every kind of destination.
#pragma once

#include "peers/far_ends.h"

namespace peers {

enum class Entry : std::uint8_t { redirect, redirect6, socks, socks6, socks_name, tun, tun6 };
constexpr unsigned entry_kinds = 7;

struct Exchange {
  Entry entry = Entry::redirect;
  Port port = origin_port;
  Reception reception = Reception::polite;
  Manner manner = Manner::polite;  // the client's
  Order order;
};
Task<End> exchange_stream(Exchange exchange);
// Connected, nothing said yet. For streams that take more than one order.
Task<bool> enter(Socket& socket, Entry entry, Port port, Reception reception);

Task<End> exchange_http(Entry entry, unsigned requests, std::uint32_t largest);

enum class Lookup : std::uint8_t { tcp, http, again, device };
// Once more for each of `tries` that nobody answers.
Task<End> exchange_dns(Lookup lookup, Reception reception, unsigned tries);

enum class Datagrams : std::uint8_t { relay, transparent, device };
Task<End> exchange_udp(Datagrams kind, unsigned count, std::uint32_t largest, unsigned tries);

// Bytes that nobody expects, floods of connections, connections that say nothing.
Task<End> misbehave();

}  // namespace peers
