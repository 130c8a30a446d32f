#include "dns/lookup.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <optional>
#include <string_view>

#include "dns/http_answer.h"
#include "dns/reply.h"
#include "dns/template.h"
#include "httpmod/cipher.h"
#include "tcp/handshake.h"

namespace vrox::dns {

namespace {

using tcp::Handshake;
using tcp::LinkState;
using State = LookupResult::State;
using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t max_tcp_answer = length_prefix + std::numeric_limits<std::uint16_t>::max();
constexpr std::size_t second_flags_byte = 3;
constexpr std::uint8_t good_reply = 0x80;  // recursion available, no error

constinit std::array<char, max_tcp_answer> chunk{};  // what one read brought
constinit ReplyBuffer made_reply{};

bool is_ciphered(const DnsQuery& query) {
  return query.rule->tunnel && query.rule->tunnel_key.on();
}

std::string_view as_text(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
Bytes as_bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// ---- requests ---------------------------------------------------------------

std::string_view framed_message(DnsQuery& query) {
  query.wire[0] = static_cast<std::uint8_t>(query.message_length >> 8);
  query.wire[1] = static_cast<std::uint8_t>(query.message_length & 0xff);
  return as_text(Bytes(query.wire).first(length_prefix + query.message_length));
}

// The cipher works in place, and the message is still needed.
bool encipher_request(DnsQuery& query) {
  if (query.request.empty() && !query.request.assign(query.unsent)) return false;
  query.send_key =
      httpmod::tunnel_encode(query.request.span(), query.rule->tunnel_key, query.send_key);
  query.unsent = query.request.view();
  return true;
}

bool build_requests(DnsQuery& query, const Question& question) {
  DnsRule& rule = *query.rule;
  const bool has_address = question.type == type_a || question.type == type_aaaa;
  if (!rule.tcp_dns && !has_address) return false;
  if (!refresh_templates(rule)) return false;
  if (is_ciphered(query)) {
    query.send_key = query.receive_key = httpmod::starting_key(std::time(nullptr));
  }
  if (rule.tunnel && !make_tunnel_request(rule, query.send_key, query.tunnel_request)) return false;
  if (rule.tcp_dns) {
    query.unsent = framed_message(query);
  } else {
    if (!make_lookup_request(rule, question.name(), query.request)) return false;
    query.unsent = query.request.view();
  }
  return !is_ciphered(query) || encipher_request(query);
}

// ---- the way out --------------------------------------------------------------

tcp::Destination* pick(Ring<tcp::Destination>& ring) {
  if (ring.empty()) return nullptr;
  return &pick_least_used(ring, [](tcp::Destination& d) -> std::int32_t& { return d.use_count; });
}

const SocketAddress& address_of(const DnsQuery& query) {
  return query.destination->original_dst ? query.local : query.destination->address;
}

// What is connected to: the rule's destination, or the SOCKS5 proxy before it.
// Null when there is none, or the one whose turn it is refuses.
const SocketAddress* choose_upstream(DnsQuery& query) {
  DnsRule& rule = *query.rule;
  query.destination = pick(rule.destinations);
  if (query.destination == nullptr || query.destination->deny_network) return nullptr;
  if (rule.socks5_modules.empty()) return &address_of(query);
  query.socks5 = &pick_least_used(
      rule.socks5_modules, [](tcp::Module& module) -> std::int32_t& { return module.use_count; });
  query.socks5_destination = pick(query.socks5->destinations);
  return query.socks5_destination == nullptr ? nullptr : &query.socks5_destination->address;
}

bool handshake_due(const DnsQuery& query) {
  if (query.socks5 != nullptr && query.upstream.socks5_state != tcp::Socks5State::done) return true;
  return query.rule->tunnel && query.upstream.tunnel_state != tcp::TunnelState::open;
}

Handshake handshake_step(DnsQuery& query) {
  if (query.socks5 == nullptr || query.upstream.socks5_state == tcp::Socks5State::done) {
    return tcp::tunnel_client_step(query.upstream, query.tunnel_request, tcp::long_answer);
  }
  // Proxies know IPv4 addresses as such.
  SocketAddress target = address_of(query);
  target.normalise();
  return tcp::socks5_client_step(query.upstream, query.socks5->socks5_auth.view(), target);
}

// `done` when the upstream takes the request.
Handshake drive_handshake(DnsQuery& query) {
  while (handshake_due(query)) {
    const Handshake step = handshake_step(query);
    if (step == Handshake::readable) query.readable = false;  // until more of the answer comes
    if (step != Handshake::done) return step;
  }
  return Handshake::done;
}

bool send_request(DnsQuery& query) {
  while (!query.unsent.empty()) {
    const ssize_t sent = tcp::upstream_write(query.upstream, query.unsent);
    if (sent > 0) {
      query.unsent.remove_prefix(static_cast<std::size_t>(sent));
    } else if (sent == 0 || errno != EINTR) {
      return sent == -1 && (errno == EAGAIN || errno == EINPROGRESS || errno == ENOTCONN);
    }
  }
  return true;
}

// ---- answers --------------------------------------------------------------------

// A server may answer with another question than it was asked; the client tells
// the difference, whereas the cache would repeat it for ever. So with a question
// that cannot be read, unless the one asked is no better.
bool has_other_question(Bytes reply, Bytes query) {
  const auto answered = question_bytes(reply);
  const auto asked = question_bytes(query);
  const auto lower = [](std::uint8_t byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<std::uint8_t>(byte | 0x20) : byte;
  };
  if (!asked) return false;
  return !answered || !std::ranges::equal(*answered, *asked, {}, lower, lower);
}

LookupResult read_message(const DnsQuery& query, std::string_view answer) {
  if (answer.size() < length_prefix) return {};
  const Bytes bytes = as_bytes(answer);
  const std::size_t length = std::size_t{bytes[0]} << 8 | bytes[1];
  if (length == 0) return {.state = State::failed};
  if (answer.size() < length_prefix + length) return {};
  const Bytes reply = bytes.subspan(length_prefix, length);
  const bool storable = length > second_flags_byte && reply[second_flags_byte] == good_reply &&
                        !has_other_question(reply, query.message());
  return {.state = State::replied, .reply = reply, .storable = storable};
}

LookupResult made(const DnsQuery& query, const HttpAnswer& answer) {
  const auto question = read_question(query.message());
  if (!question) return {.state = State::failed};
  if (answer.verdict == HttpAnswer::Verdict::failure) {
    return {.state = State::replied,
            .reply = build_failure(made_reply, query.message(), *question)};
  }
  return {.state = State::replied,
          .reply = build_answer(made_reply, query.message(), *question, answer.address),
          .storable = true};
}

LookupResult read_text(const DnsQuery& query, std::string_view response, bool ended) {
  const HttpAnswer answer = read_http_answer(response, ended || response.size() == max_http_answer);
  if (answer.verdict == HttpAnswer::Verdict::incomplete) return {};
  if (!answer.settled) return {.state = State::unsettled};
  if (answer.verdict == HttpAnswer::Verdict::nothing) return {.state = State::failed};
  LookupResult result = made(query, answer);
  result.storable = result.storable && answer.certain;
  return result;
}

LookupResult read_answer(const DnsQuery& query, std::string_view answer) {
  return query.rule->tcp_dns ? read_message(query, answer) : read_text(query, answer, false);
}

bool is_over(const LookupResult& result) {
  return result.state == State::replied || result.state == State::failed;
}

// Takes what has come for the whole answer. What may have been cut is good enough
// for one reply, but not for the cache.
LookupResult settle(const DnsQuery& query, bool certain) {
  if (query.rule->tcp_dns) return {.state = State::failed};
  LookupResult result = read_text(query, query.received.view(), true);
  if (!is_over(result)) return {.state = State::failed};
  result.storable = result.storable && certain;
  return result;
}

// What came is kept only while more of the answer is to come.
LookupResult take_chunk(DnsQuery& query, std::size_t count) {
  const std::span bytes = std::span(chunk).first(count);
  if (is_ciphered(query)) {
    query.receive_key = httpmod::tunnel_decode(bytes, query.rule->tunnel_key, query.receive_key);
  }
  const std::string_view piece(bytes.data(), bytes.size());
  if (query.received.empty()) {
    const LookupResult result = read_answer(query, piece);
    if (is_over(result)) return result;
    return query.received.append(piece) ? result : LookupResult{.state = State::failed};
  }
  if (!query.received.append(piece)) return {.state = State::failed};
  return read_answer(query, query.received.view());
}

LookupResult receive_answer(DnsQuery& query) {
  const std::size_t limit = query.rule->tcp_dns ? max_tcp_answer : max_http_answer;
  LookupResult result;
  while (query.readable) {
    const std::size_t room = limit - query.received.size();
    const ssize_t got = recv(query.upstream.fd, chunk.data(), room, 0);
    if (got > 0) {
      result = take_chunk(query, static_cast<std::size_t>(got));
      if (is_over(result)) return result;
      continue;
    }
    if (got == -1 && errno == EINTR) continue;
    query.readable = false;
    const bool waits = got == -1 && (errno == EAGAIN || errno == ENOTCONN);
    if (!waits) return settle(query, got == 0);
  }
  return result;
}

}  // namespace

bool lookup_start(DnsQuery& query, const Question& question) {
  if (!build_requests(query, question)) return false;
  const SocketAddress* to = choose_upstream(query);
  return to != nullptr && tcp::dial_quietly(query.upstream, *to, query.rule->fast_open);
}

LookupResult lookup_advance(DnsQuery& query, std::uint32_t events) {
  query.idle_ticks = 0;
  if ((events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) query.readable = true;
  if (query.upstream.state == LinkState::connecting) {
    // A connect that failed shows in the first write.
    if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) == 0) return {};
    query.upstream.state = LinkState::connected;
  }
  const Handshake handshake = drive_handshake(query);
  if (handshake == Handshake::failed) return {.state = State::failed};
  if (handshake != Handshake::done) return {};
  if (!send_request(query)) return {.state = State::failed};
  return receive_answer(query);
}

LookupResult lookup_settle(DnsQuery& query) { return settle(query, false); }

void lookup_end(DnsQuery& query) {
  if (query.upstream.fd != -1) (void)close(query.upstream.fd);  // leaves the epoll set by that
  query.upstream = {};
  if (query.destination != nullptr) --query.destination->use_count;
  if (query.socks5 != nullptr) --query.socks5->use_count;
  if (query.socks5_destination != nullptr) --query.socks5_destination->use_count;
}

}  // namespace vrox::dns
