// The server side of the SOCKS5 handshake (RFC 1928, RFC 1929) on one
// connection. Works on the connection's socket only; what a request leads to is
// the server's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "dns/message.h"
#include "main/address.h"

namespace vrox::socks5 {

// Version, command, reserved, address type, a name of 255 bytes behind its
// length, port.
constexpr std::size_t max_request = 262;
// Header, encoded name, type and class.
constexpr std::size_t max_query = 12 + 255 + 4;

// One handshake, a slot of the server's table; free when `fd` is -1. The SOCKS5
// thread's alone.
struct Socks5Conn {
  enum class State : std::uint8_t {
    greeting = 0,
    request = 1,
    credentials = 2,
    resolving = 3,   // the name's DNS answer resumes it
    associated = 5,  // UDP association: only kept open
  };

  Socks5Conn* next_ended = nullptr;  // while it waits for the end of the pass
  SocketAddress client_addr;         // as accept() stored it
  SocketAddress target;              // of a CONNECT; only its port while resolving
  int fd = -1;
  std::uint32_t idle_ticks = 0;     // sweeps since the last step
  std::uint16_t greeting_left = 0;  // methods that are announced but have not come yet
  std::uint16_t request_length = 0;
  std::uint16_t query_length = 0;
  State state = State::greeting;
  std::array<std::uint8_t, max_request> request{};  // gathered until it is complete
  std::array<std::uint8_t, max_query> query{};      // for the name of a CONNECT
};

enum class Verdict : std::uint8_t {
  keep,     // it waits for its client
  end,      // close it; every failure, silently
  join,     // hand it over, its `target` is known
  resolve,  // send its `query`
};

// Goes as far as what has come from the client allows, so that no edge is lost.
// `query_id` is the identifier of a DNS query that may come of it.
[[nodiscard]] Verdict socks5_handshake_step(Socks5Conn& conn, std::uint16_t query_id);

}  // namespace vrox::socks5
