#include "tcp/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <new>
#include <utility>

namespace vrox::tcp {

namespace {

constexpr int pipe_size = 256 * 1024;
// Two descriptors and at most pipe_size of kernel memory each.
constexpr int max_pipes = 128;

constinit RelayPipe* empty_pipe = nullptr;
constinit int pipes = 0;

void close_pipe(RelayPipe* pipe) {
  (void)close(pipe->read_fd);
  (void)close(pipe->write_fd);
  delete pipe;
  --pipes;
}

RelayPipe* make_pipe() {
  if (pipes >= max_pipes) return nullptr;
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) != 0) return nullptr;
  // Refused beyond what a user may hold; then it stays as it was made.
  (void)fcntl(ends[1], F_SETPIPE_SZ, pipe_size);
  auto* made = new (std::nothrow) RelayPipe{.read_fd = ends[0], .write_fd = ends[1], .filled = 0};
  if (made == nullptr) {
    (void)close(ends[0]);
    (void)close(ends[1]);
    return nullptr;
  }
  ++pipes;
  return made;
}

}  // namespace

RelayPipe* take_pipe() {
  RelayPipe* pipe = std::exchange(empty_pipe, nullptr);
  return pipe != nullptr ? pipe : make_pipe();
}

void give_back(RelayPipe*& pipe) {
  RelayPipe* given = std::exchange(pipe, nullptr);
  if (given == nullptr) return;
  if (given->filled == 0 && empty_pipe == nullptr) {
    empty_pipe = given;
  } else {
    close_pipe(given);
  }
}

ssize_t fill(RelayPipe& pipe, int socket_fd) {
  const ssize_t moved = splice(socket_fd, nullptr, pipe.write_fd, nullptr, pipe_size,
                               SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (moved > 0) pipe.filled += static_cast<std::uint32_t>(moved);
  return moved;
}

ssize_t drain(RelayPipe& pipe, int socket_fd, std::size_t size) {
  const ssize_t moved =
      splice(pipe.read_fd, nullptr, socket_fd, nullptr, size, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
  if (moved > 0) pipe.filled -= static_cast<std::uint32_t>(moved);
  return moved;
}

}  // namespace vrox::tcp
