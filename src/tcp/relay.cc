// How bytes move.
//
// Both sockets of a session are edge-triggered, so what an event told once is
// kept as a mark until a read says EAGAIN (input.h). A reader stops early in five
// cases, and in each of them somebody resumes it:
//
//   - what it read before is not written yet: the flush that writes it;
//   - 256 KiB wait for the upstream: likewise;
//   - the session is throttled by `maxSpeed`: the next second's tick;
//   - it had its turn (30 full buffers): the loop, after the other sessions;
//   - messages come one at a time, and EAGAIN is what it would find: the next event,
//     or the loop, a few milliseconds later.
//
// Client bytes go straight to the upstream and are kept only as far as the socket
// does not take them. Upstream bytes pass through one buffer shared by all
// sessions; a session that cannot empty it keeps it, reads no further, and the
// next reader makes a new one.
//
// A stream that fills the buffer again and again, and that nobody here has to
// look at or change, goes on through a pipe inside the kernel until its socket is
// empty. The next bytes are read again first: they may begin a request.
#include "tcp/relay.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "httpmod/cipher.h"
#include "tcp/budget.h"
#include "tcp/client.h"
#include "tcp/quota.h"
#include "tcp/request.h"
#include "tcp/tunnel.h"

namespace vrox::tcp {

namespace {

constexpr int turn_reads = 30;  // full buffers per session and pass
constexpr int max_reads = 300;  // of any size, from a sender that never lets the socket run empty

// Where sessions share an allowance it goes round by single buffers.
int turn_of(const TcpSession& session) {
  return session.rule != nullptr && is_limited(*session.rule) ? 1 : turn_reads;
}

// Owned by nobody while it is empty.
constinit char* relay_buffer = nullptr;

static_assert(Input::small_message <= relay_buffer_size);

bool would_wait(int error) { return error == EAGAIN || error == EINTR; }

// ---- towards the upstream -----------------------------------------------------

bool can_write_upstream(const TcpSession& session) {
  return session.upstream.fd >= 0 && !session.throttled &&
         session.upstream.state != LinkState::connecting && upstream_is_open(session);
}

// The bytes that the upstream took. Ends the server side on failure.
std::size_t write_upstream(TcpSession& session, std::string_view bytes) {
  const ssize_t written = session_write(session, server_side, bytes);
  if (written > 0) return static_cast<std::size_t>(written);
  if (written == 0 || !(would_wait(errno) || errno == EINPROGRESS)) {
    session_close(session, server_side);
  }
  return 0;
}

// What a write of `size` bytes may be now: 0 with errno EAGAIN when the session
// is throttled.
std::size_t allowed(TcpSession& session, std::size_t size) {
  const std::size_t part = take_allowance(session, size);
  if (part == 0) errno = EAGAIN;
  return part;
}

// As session_write, from a pipe.
ssize_t session_splice(TcpSession& session, Sides to, RelayPipe& pipe) {
  if (data_used_up(*session.rule)) return 0;
  const std::size_t size = allowed(session, pipe.filled);
  if (size == 0) return -1;
  const ssize_t moved =
      drain(pipe, to == server_side ? session.upstream.fd : session.client_fd, size);
  count_written(*session.rule, size, moved);
  return moved;
}

void empty_c2s_pipe(TcpSession& session) {
  const ssize_t moved = session_splice(session, server_side, *session.c2s_pipe);
  if (moved == 0 || (moved == -1 && !would_wait(errno))) {
    session_close(session, server_side);
  } else if (session.c2s_pipe->filled == 0) {
    give_back(session.c2s_pipe);
  }
}

void flush_to_server(TcpSession& session) {
  if (session.c2s_left() == 0 || !can_write_upstream(session)) return;
  const std::string_view rest = session.c2s_pending.view().substr(session.c2s_sent);
  if (!rest.empty()) {
    const std::size_t written = write_upstream(session, rest);
    session.c2s_sent += static_cast<std::uint32_t>(written);
    if (session.upstream.fd < 0 || written != rest.size()) return;
    session.c2s_pending.reset();
    session.c2s_sent = 0;
    discharge(session);
  }
  if (session.c2s_pipe != nullptr) empty_c2s_pipe(session);
  if (session.upstream.fd < 0 || session.c2s_left() != 0) return;
  if (session.client_fd < 0) session_close(session, server_side);
}

bool queue_for_server(TcpSession& session, std::string_view bytes) {
  if (session.c2s_sent > session.c2s_pending.size() / 2) {
    session.c2s_pending.erase_front(session.c2s_sent);
    session.c2s_sent = 0;
  }
  return session.c2s_pending.append(bytes);
}

// ---- towards the client ---------------------------------------------------------

// An emptied buffer serves the next reader again.
void give_back_buffer(TcpSession& session) {
  if (session.owns_s2c_buf) {
    if (relay_buffer == nullptr) {
      relay_buffer = session.s2c_buf;
    } else {
      std::free(session.s2c_buf);
    }
  }
  session.s2c_buf = nullptr;
  session.owns_s2c_buf = false;
}

// What waits in the buffer, and then in the pipe. Negative with errno when a
// write failed, 0 when the quota is used up.
ssize_t write_to_client(TcpSession& session) {
  const std::size_t buffered = session.s2c_len - session.s2c_sent;
  if (buffered == 0) return session_splice(session, client_side, *session.s2c_pipe);
  const ssize_t written =
      session_write(session, client_side, {session.s2c_buf + session.s2c_sent, buffered});
  if (written > 0) session.s2c_sent += static_cast<std::uint32_t>(written);
  return written;
}

void flush_to_client(TcpSession& session) {
  if (session.s2c_left() == 0 || session.throttled) return;
  if (session.client_fd >= 0) {
    const ssize_t written = write_to_client(session);
    if (written == 0 || (written == -1 && !would_wait(errno))) session_close(session, client_side);
    if (session.client_fd >= 0 && session.s2c_left() != 0) return;
  }
  if (!session.in_use()) return;
  // Written, or nobody is left to read it.
  session.s2c_len = session.s2c_sent = 0;
  give_back_buffer(session);
  give_back(session.s2c_pipe);
  if (session.upstream.fd < 0) session_close(session, client_side);
}

// The session's own buffer, or the shared one. Null when memory is short.
char* take_buffer(TcpSession& session) {
  if (session.owns_s2c_buf) return session.s2c_buf;
  if (relay_buffer == nullptr) relay_buffer = static_cast<char*>(std::malloc(relay_buffer_size));
  if (relay_buffer == nullptr) std::perror("malloc()");
  return relay_buffer;
}

void keep_buffer(TcpSession& session) {
  if (session.owns_s2c_buf) return;
  session.owns_s2c_buf = true;
  relay_buffer = nullptr;
}

enum class Read : std::uint8_t { some, nothing, again };

// One read from the upstream. Ends the server side at the end of the stream.
Read read_upstream(TcpSession& session, char* buffer, std::size_t& count) {
  const ssize_t got = recv(session.upstream.fd, buffer, relay_buffer_size, 0);
  if (got > 0) {
    // Also when no event tells of it, as after a flush.
    session.idle_ticks = 0;
    count = static_cast<std::size_t>(got);
    if (session.server_input.took(count)) session_ask_soon(session);
    return Read::some;
  }
  if (got == -1 && errno == EINTR) return Read::again;
  session.server_input.emptied();
  if (got == 0) session.server_input.ended();
  const bool still_connecting = got == -1 && (errno == EAGAIN || errno == ENOTCONN);
  if (!still_connecting) session_close(session, server_side);
  return Read::nothing;
}

// What was read and goes to the client, or to nobody when it has gone. False
// when some of it waits.
bool pass_to_client(TcpSession& session, std::span<char> bytes) {
  const httpmod::TunnelKey key = session.module->tunnel_key;
  if (key.on()) {
    session.s2c_cipher_state = httpmod::tunnel_decode(bytes, key, session.s2c_cipher_state);
  }
  session.s2c_buf = bytes.data();
  session.s2c_len = static_cast<std::uint32_t>(bytes.size());
  session.s2c_sent = 0;
  flush_to_client(session);
  if (session.s2c_left() == 0) return true;
  keep_buffer(session);
  return false;
}

// ---- bulk -----------------------------------------------------------------------

// A stream whose reads fill the buffer this often in one turn is bulky.
constexpr int bulky_reads = 2;
// A turn of a bulky stream moves about as much as others may copy.
constexpr std::size_t bulk_turn = turn_reads * relay_buffer_size;

enum class Bulk : std::uint8_t { moved, stopped, impossible };

// One pipe's fill from a socket.
Bulk fill_pipe(TcpSession& session, Sides from, RelayPipe*& pipe) {
  // A quota is overdrawn by no more than the write that reaches it.
  if (is_limited(*session.rule)) return Bulk::impossible;
  pipe = take_pipe();
  if (pipe == nullptr) return Bulk::impossible;
  const int fd = from == server_side ? session.upstream.fd : session.client_fd;
  const ssize_t moved = fill(*pipe, fd);
  if (moved > 0) {
    session.idle_ticks = 0;
    return Bulk::moved;
  }
  const int error = errno;
  give_back(pipe);
  if (moved == -1 && error == EINTR) return Bulk::impossible;  // a read tells
  if (moved == -1 && error == EINVAL) return Bulk::impossible;
  input_of(session, from).emptied();
  if (moved == 0 || error != EAGAIN) session_close(session, from);
  return Bulk::stopped;
}

bool server_bytes_are_plain(const TcpSession& session) {
  return !session.module->tunnel_key.on() && session.client_fd >= 0 && client_is_socket(session);
}

Bulk splice_from_server(TcpSession& session) {
  for (std::size_t moved = 0; moved < bulk_turn;) {
    if (!server_bytes_are_plain(session)) return Bulk::impossible;
    const Bulk filled = fill_pipe(session, server_side, session.s2c_pipe);
    if (filled != Bulk::moved) return filled;
    moved += session.s2c_pipe->filled;
    flush_to_client(session);
    if (session.upstream.fd < 0 || session.throttled || session.s2c_left() != 0) {
      return Bulk::stopped;
    }
  }
  session_run_later(session);
  return Bulk::stopped;
}

Bulk splice_from_client(TcpSession& session) {
  for (std::size_t moved = 0; moved < bulk_turn;) {
    if (session.c2s_left() != 0 || !can_write_upstream(session)) return Bulk::impossible;
    const Bulk filled = fill_pipe(session, client_side, session.c2s_pipe);
    if (filled != Bulk::moved) return filled;
    moved += session.c2s_pipe->filled;
    flush_to_server(session);
    if (session.client_fd < 0 || session.throttled || session.c2s_left() != 0) return Bulk::stopped;
  }
  session_run_later(session);
  return Bulk::stopped;
}

// ---- reading --------------------------------------------------------------------

void relay_from_server(TcpSession& session) {
  for (int reads = 0, full_reads = 0; session.server_input.readable(); ++reads) {
    if (session.upstream.fd < 0 || session.throttled || session.s2c_left() != 0) return;
    const bool had_turn = full_reads == turn_of(session) || reads == max_reads;
    if (had_turn) return session_run_later(session);
    if (full_reads >= bulky_reads && splice_from_server(session) == Bulk::stopped) return;
    char* buffer = take_buffer(session);
    if (buffer == nullptr) return session_close(session, server_side);
    std::size_t count = 0;
    const Read read = read_upstream(session, buffer, count);
    if (read == Read::nothing) return;
    if (read == Read::again) continue;
    if (!pass_to_client(session, {buffer, count})) return;
    if (count == relay_buffer_size) ++full_reads;
  }
}

void relay_from_client(TcpSession& session) {
  for (int reads = 0, full_reads = 0; session.client_input.readable(); ++reads) {
    if (session.client_fd < 0 || session.throttled || session.c2s_pipe != nullptr) return;
    if (session.c2s_left() >= max_c2s_pending) return;
    if (reads == turn_of(session)) return session_run_later(session);
    if (full_reads >= bulky_reads && client_bytes_are_plain(session) &&
        splice_from_client(session) == Bulk::stopped) {
      return;
    }
    if (read_client_request(session) == relay_buffer_size) ++full_reads;
  }
}

// Both directions, each after what it left waiting: a reader that stopped for
// want of room goes on where room was made.
void towards_upstream(TcpSession& session) {
  flush_to_server(session);
  relay_from_client(session);
}

void towards_client(TcpSession& session) {
  flush_to_client(session);
  if (session.upstream.fd >= 0 && upstream_is_open(session)) relay_from_server(session);
}

}  // namespace

ssize_t session_write(TcpSession& session, Sides to, std::string_view bytes) {
  if (data_used_up(*session.rule)) return 0;
  bytes = bytes.substr(0, allowed(session, bytes.size()));
  if (bytes.empty()) return -1;
  const ssize_t written =
      to == server_side ? upstream_write(session.upstream, bytes) : client_write(session, bytes);
  count_written(*session.rule, bytes.size(), written);
  return written;
}

void forward_to_server(TcpSession& session, std::string_view bytes) {
  // A connect to somewhere near is done before its socket is registered.
  const bool just_dialled = session.server_mask == 0 && session.upstream.fd >= 0 &&
                            !session.throttled && upstream_is_open(session);
  if (session.c2s_left() == 0 && (just_dialled || can_write_upstream(session))) {
    bytes.remove_prefix(write_upstream(session, bytes));
  }
  if (bytes.empty() || session.upstream.fd < 0) return;
  if (!queue_for_server(session, bytes)) session_close(session, client_side);
}

void session_on_readable(TcpSession& session) {
  if (!session.in_use() || session.throttled) return;
  session.idle_ticks = 0;
  relay_from_client(session);
  if (!session.server_input.readable() || session.upstream.fd < 0 || session.throttled) return;
  const bool was_open = upstream_is_open(session);
  if (!drive_handshake(session)) return;
  if (!was_open) towards_upstream(session);
  // Payload may have come with the proxy's last answer, and no edge tells of it.
  if (session.upstream.fd >= 0) relay_from_server(session);
}

void session_flush(TcpSession& session) {
  if (!session.in_use() || session.throttled) return;
  if (session.upstream.fd >= 0 && session.upstream.state != LinkState::connecting) {
    (void)drive_handshake(session);
  }
  // By turns: the first direction may use up what a speed limit leaves.
  session.client_first = !session.client_first;
  if (session.client_first) {
    towards_upstream(session);
    towards_client(session);
  } else {
    towards_client(session);
    towards_upstream(session);
  }
}

}  // namespace vrox::tcp
