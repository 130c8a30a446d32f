// What every kind of load needs: sockets, epoll, clocks.
#pragma once

#include <netinet/in.h>
#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace load {

// Reports the call that failed and ends: a measurement with a fault in it is none.
[[noreturn]] void die(const char* call);

// "address:port", IPv4. Ends the program when it is something else.
[[nodiscard]] sockaddr_in parse_address(std::string_view text);

[[nodiscard]] int new_socket(int type);  // non-blocking, without Nagle's delay
[[nodiscard]] int listen_on(int type, std::uint16_t port);
void bind_or_connect(int fd, const sockaddr_in& address,
                     int (*call)(int, const sockaddr*, socklen_t));

// Everything in one go; a small message always fits an empty socket buffer.
[[nodiscard]] bool send_whole(int fd, std::string_view bytes);

[[nodiscard]] std::int64_t now_ns();
[[nodiscard]] double cpu_seconds();  // of this process
void raise_descriptor_limit();

class Epoll {
 public:
  Epoll();
  void add(int fd, std::uint32_t events, void* data);
  void change(int fd, std::uint32_t events, void* data);
  // What is ready within `milliseconds`; -1: however long it takes.
  [[nodiscard]] std::span<const epoll_event> wait(int milliseconds);

 private:
  int fd_;
  std::vector<epoll_event> ready_;
};

// Whether a call on a non-blocking socket is only to be tried again.
[[nodiscard]] bool not_now(ssize_t result);

// Bytes uploaded, as the server counts them: a page that both ends map. A word on
// the connection itself would wait behind what a proxy still has in its buffers.
[[nodiscard]] volatile std::uint64_t* map_counter(const char* path);

}  // namespace load
