// Pipes through which bulk data move from socket to socket inside the kernel
// (splice(2)), without being copied into this process and back.
//
// A pipe belongs to nobody while it is empty: one is shared by all sessions. A
// session that cannot empty it keeps it until it can, and the next one makes
// another. How many may be kept is bounded; beyond that bytes are copied.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace vrox::tcp {

struct RelayPipe {
  int read_fd = -1;
  int write_fd = -1;
  std::uint32_t filled = 0;  // bytes that wait in it
};

// An empty pipe; null when there can be none now.
[[nodiscard]] RelayPipe* take_pipe();
// An empty one serves the next session; one that still holds bytes is closed,
// and they are gone. The pointer is cleared.
void give_back(RelayPipe*& pipe);

// From a socket into the pipe, as read(2).
[[nodiscard]] ssize_t fill(RelayPipe& pipe, int socket_fd);
// Up to `size` bytes from the pipe into a socket, as write(2).
[[nodiscard]] ssize_t drain(RelayPipe& pipe, int socket_fd, std::size_t size);

}  // namespace vrox::tcp
