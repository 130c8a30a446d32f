// The sessions of the TCP proxy: the table, its event loop, and the beginning
// and end of a session, whatever it came from.
//
// A slot is free (both descriptors -1) -> claimed and filled by the accept step
// or by another service -> live, from session_start() on, when it is the TCP
// loop's alone -> half-closed, while what is pending for the remaining side
// drains -> free again at the end of the pass in which its last side ended.
#pragma once

#include <cstdint>

#include "acl/rule.h"
#include "httpmod/request.h"
#include "main/address.h"
#include "main/buffer.h"
#include "main/links.h"
#include "main/loop.h"
#include "main/slot_table.h"
#include "tcp/input.h"
#include "tcp/module.h"
#include "tcp/pipe.h"
#include "tcp/upstream.h"

namespace vrox::tun {
struct TunFlow;
struct TunRecord;
}  // namespace vrox::tun

namespace vrox::tcp {

// What a client and its upstream have between them.
struct TcpSession {
  Mail mail;                    // hands a slot that another service filled to the TCP loop
  Links<TcpSession> live;       // all that the loop owns
  Links<TcpSession> runnable;   // stopped reading early, without waiting for anything
  Links<TcpSession> undialled;  // its client may speak first and save a round trip
  Links<TcpSession> unasked;    // an input of it was taken for empty

  acl::Rule* rule = nullptr;                    // null until matched
  Module* module = nullptr;                     // null until chosen
  Destination* destination = nullptr;           // likewise
  tun::TunFlow* tun_flow = nullptr;             // the client of a TUN session; null: a socket
  SocketAddress client_addr;                    // normalised: IPv4 as AF_INET, spread
  SocketAddress original_dst;                   // where the client meant to go; IPv4 spread
  const SocketAddress* connect_addr = nullptr;  // original_dst or the destination's

  Upstream upstream;
  Buffer c2s_pending;     // accepted from the client, waiting for the upstream
  Buffer request_buf;     // gathered until a request is recognised
  Buffer tunnel_request;  // for the upstream proxy, built ahead or in part unsent
  // What the client did not take yet of the last read from the upstream: in the
  // shared relay_buffer while it passes through, the session's own when it stays.
  char* s2c_buf = nullptr;
  RelayPipe* c2s_pipe = nullptr;  // bulk data that wait behind c2s_pending
  RelayPipe* s2c_pipe = nullptr;  // likewise behind s2c_buf
  httpmod::HeadScan scan;         // of request_buf

  int client_fd = -1;            // of a TUN session: the device
  std::uint32_t idle_ticks = 0;  // sweeps since the last read event
  std::uint32_t c2s_sent = 0;    // bytes of c2s_pending already written
  std::uint32_t s2c_len = 0;
  std::uint32_t s2c_sent = 0;
  std::uint32_t charged = 0;           // of what it holds, what counts against the budget of all
  std::uint32_t method = 0;            // code of the last recognised request
  std::uint32_t connect_head_len = 0;  // of a CONNECT in c2s_pending that is answered here
  std::uint32_t client_mask = 0;       // registered with epoll; 0: not registered
  std::uint32_t server_mask = 0;
  std::int64_t dial_at_ms = 0;  // undialled: no longer than until then
  std::int32_t keep_alive = 0;  // in force on the client's socket: idle seconds, 0 off

  Input client_input;
  Input server_input;
  std::uint8_t c2s_cipher_state = 0;
  std::uint8_t s2c_cipher_state = 0;
  bool keeps_own_keep_alive : 1 = false;  // it came with a setting of its own service
  bool rematched : 1 = false;             // at most once
  bool owns_s2c_buf : 1 = false;
  bool client_first : 1 = false;    // which direction was served first the last time
  bool throttled : 1 = false;       // by `maxSpeed`, until the next second
  bool counted_client : 1 = false;  // in the rule's `limit_client_ip`

  [[nodiscard]] bool in_use() const { return client_fd >= 0 || upstream.fd >= 0; }
  // What waits for the upstream, and for the client.
  [[nodiscard]] std::size_t c2s_left() const {
    return c2s_pending.size() - c2s_sent + (c2s_pipe != nullptr ? c2s_pipe->filled : 0);
  }
  [[nodiscard]] std::size_t s2c_left() const {
    return s2c_len - s2c_sent + (s2c_pipe != nullptr ? s2c_pipe->filled : 0);
  }
};

enum Sides : std::uint8_t { client_side = 1, server_side = 2, both_sides = 3 };

[[nodiscard]] inline Input& input_of(TcpSession& session, Sides side) {
  return side == server_side ? session.server_input : session.client_input;
}

extern SlotTable<TcpSession> tcp_session_table;

// Start-up, before any service thread runs: listener options, table, epoll set.
// Ends the process with status 1 when the kernel or memory refuses.
void tcp_prepare();
// Likewise, with a TUN device: `handler` is told of its packets, on the TCP thread.
void tcp_attach_tun(void (*handler)(tun::TunRecord& record));
// Whether this process has a TCP loop: for a listener, or for a TUN device alone.
[[nodiscard]] bool tcp_is_prepared();

// The body of the TCP thread.
[[noreturn]] void tcp_event_loop();

// For other services, on their threads. A claimed slot is filled (client_fd,
// non-blocking and in no epoll set; client_addr, normalised; original_dst) and
// submitted, after which it is the TCP loop's. Null when the table is full.
[[nodiscard]] TcpSession* claim_session();
void submit_session(TcpSession& session);

// Ask the TCP loop, from any thread or signal handler: to count idle sessions
// and end those that reached their limit; to resume what was throttled; to
// accept what already waits and close the listener.
void tcp_sweep();
void tcp_resume_throttled();
void tcp_drain();
[[nodiscard]] bool tcp_drained();  // the listener is closed

// The TCP loop's own.

// Matches the connection-time rules, dials when one matched, and registers the
// client. Ends the session when that fails.
void session_start(TcpSession& session);

// Ends the named sides, and the other one too when nothing waits for it. The
// slot is cleared once both are gone.
void session_close(TcpSession& session, Sides sides);

// Brings the epoll registrations in line with what the session waits for: no
// system call when that is what it waited for before.
void session_arm(TcpSession& session);
// Descriptors have run out: nothing is accepted for a while.
void session_starve();
// Has the session looked at again in the next pass.
void session_run_later(TcpSession& session);
// Has inputs that were taken for empty asked when they have been silent for a while.
void session_ask_soon(TcpSession& session);
// Closes the upstream so that another can be dialled, and gives back its counts.
void session_drop_upstream(TcpSession& session);

}  // namespace vrox::tcp
