#include "acl/resolve.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <span>

#include "config/effects.h"
#include "main/random.h"

namespace vrox::acl {

namespace {

constexpr const char* server_variable = "VROX_INIT_CONFIG_DNS";
constexpr const char* default_server = "8.8.8.8";
constexpr std::uint16_t dns_port = 53;
constexpr std::int64_t attempt_us = 5'000'000;
constexpr int attempts = 3;
constexpr std::size_t header_size = 12;

using Addresses = std::vector<dns::ResolvedAddress>;
using Message = std::array<std::uint8_t, dns::max_message>;
using Bytes = std::span<const std::uint8_t>;

bool is_literal_v4(std::string_view name) {
  return !name.empty() && name.find_first_not_of("0123456789.") == std::string_view::npos;
}

// Converts the literal with a conversion of the C library, which wants text
// with a terminator.
template <class Convert>
bool add_literal(Addresses& list, std::string_view text, std::uint16_t type, Convert convert) {
  std::array<char, INET6_ADDRSTRLEN + 1> copy{};
  if (text.size() >= copy.size()) return false;
  std::ranges::copy(text, copy.begin());
  dns::ResolvedAddress address{.type = type};
  if (!convert(copy.data(), address.bytes)) return false;
  list.push_back(address);
  return true;
}

// inet_addr() reads the short forms as well, and gives 255.255.255.255 for
// digits and dots that are no address; intended.
int literal_v4(Addresses& list, std::string_view name) {
  const auto convert = [](const char* text, std::span<std::uint8_t, 16> bytes) {
    const in_addr_t address = inet_addr(text);
    std::ranges::copy(std::as_bytes(std::span(&address, 1)), std::as_writable_bytes(bytes).begin());
    return true;
  };
  return add_literal(list, name, dns::type_a, convert) ? 1 : -1;
}

int literal_v6(Addresses& list, std::string_view name) {
  if (name.starts_with('[')) name = name.substr(1, name.size() - 2);
  const auto convert = [](const char* text, std::span<std::uint8_t, 16> bytes) {
    return inet_pton(AF_INET6, text, bytes.data()) == 1;
  };
  return add_literal(list, name, dns::type_aaaa, convert) ? 1 : -1;
}

std::int64_t now_us() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

sockaddr_in dns_server() {
  const char* text = std::getenv(server_variable);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(dns_port);
  server.sin_addr.s_addr = inet_addr(text == nullptr ? default_server : text);
  // Sending to 0.0.0.0 reaches this host, whose answer has another source.
  if (server.sin_addr.s_addr == INADDR_ANY) server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return server;
}

// One question and its answer over a datagram socket that is not connected: an
// ICMP error must not end the waiting, the server may be about to start.
class Lookup {
 public:
  Lookup(Bytes query, const sockaddr_in& server)
      : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), query_(query), server_(server) {}
  ~Lookup() {
    if (socket_ != -1) (void)close(socket_);
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  [[nodiscard]] bool ok() const { return socket_ != -1; }

  [[nodiscard]] bool send() const {
    const auto* server = reinterpret_cast<const sockaddr*>(&server_);
    const ssize_t sent = sendto(socket_, query_.data(), query_.size(), 0, server, sizeof server_);
    if (sent == static_cast<ssize_t>(query_.size())) return true;
    std::perror("sendto()");
    return false;
  }

  // The length of the answer; -1 with errno, which is EAGAIN when the time of
  // one attempt is over.
  [[nodiscard]] ssize_t receive(Message& answer) const {
    const std::int64_t deadline = now_us() + attempt_us;
    for (;;) {
      if (!limit_wait(deadline - now_us())) return -1;
      sockaddr_in from{};
      socklen_t from_length = sizeof from;
      const ssize_t length = recvfrom(socket_, answer.data(), answer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from), &from_length);
      if (length == -1 && errno == EINTR) continue;
      if (length == -1 ||
          is_answer(std::span(answer).first(static_cast<std::size_t>(length)), from))
        return length;
    }
  }

 private:
  // Datagrams that are for nobody must not prolong the attempt.
  [[nodiscard]] bool limit_wait(std::int64_t left_us) const {
    if (left_us <= 0) {
      errno = EAGAIN;
      return false;
    }
    const timeval wait{.tv_sec = static_cast<time_t>(left_us / 1'000'000),
                       .tv_usec = static_cast<suseconds_t>(left_us % 1'000'000)};
    return setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) == 0;
  }

  // Whether it comes from the server and is not the late answer to another
  // query. What is too short to tell is a broken answer to this one.
  [[nodiscard]] bool is_answer(Bytes message, const sockaddr_in& from) const {
    if (from.sin_addr.s_addr != server_.sin_addr.s_addr || from.sin_port != server_.sin_port) {
      return false;
    }
    return message.size() < header_size || dns::answers_query(message, query_);
  }

  int socket_;
  Bytes query_;
  sockaddr_in server_;
};

// The answer's length, or 0 when there was none, which has been reported then.
std::size_t ask(const Lookup& lookup, Message& answer) {
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    if (!lookup.send()) return 0;
    errno = 0;
    const ssize_t length = lookup.receive(answer);
    if (length > 0) return static_cast<std::size_t>(length);
    const bool timed_out = length == -1 && (errno == EAGAIN || errno == EWOULDBLOCK);
    std::perror("read()");
    if (!timed_out) return 0;
    (void)std::fprintf(stderr, "wait dns response timeout %d.\n", attempt);
  }
  return 0;
}

}  // namespace

int resolve_at_load(Addresses& list, std::string_view name, std::uint16_t type) {
  if (is_literal_v4(name)) return type == dns::type_a ? literal_v4(list, name) : 0;
  if (name.find(':') != std::string_view::npos) {
    return type == dns::type_aaaa ? literal_v6(list, name) : 0;
  }
  std::array<std::uint8_t, 2> id{};
  fill_random(id);
  Message query{};
  const std::size_t length =
      dns::encode_query(query, static_cast<std::uint16_t>(id[0] << 8 | id[1]), name, type);
  if (length == 0) return -1;
  if (!config::effects.ask) {
    list.push_back({.type = type});
    return 1;
  }

  const Lookup lookup(Bytes(query).first(length), dns_server());
  if (!lookup.ok()) {
    std::perror("socket()");
    return -1;
  }
  Message answer{};
  const std::size_t answer_length = ask(lookup, answer);
  if (answer_length == 0) return -1;
  return dns::decode_answer(std::span(answer).first(answer_length), type, list);
}

}  // namespace vrox::acl
