// TCP connections over the loopback device, for what only real sockets show.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "main/address.h"

namespace vrox {

class TcpListener {
 public:
  TcpListener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
    EXPECT_EQ(listen(fd_, 8), 0);
    socklen_t length = SocketAddress::size;
    EXPECT_EQ(getsockname(fd_, address_.raw(), &length), 0);
  }
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;
  ~TcpListener() { (void)close(fd_); }

  [[nodiscard]] const SocketAddress& address() const { return address_; }
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] int accept_one() const { return accept(fd_, nullptr, nullptr); }

 private:
  int fd_;
  SocketAddress address_;
};

// Waits until `count` bytes, or the stream's end behind them, have come in.
inline void await_bytes(int fd, std::size_t count) {
  int there = 0;
  for (int tries = 0; tries < 5000; ++tries) {
    ASSERT_EQ(ioctl(fd, FIONREAD, &there), 0);
    if (static_cast<std::size_t>(there) >= count) return;
    if (tries > 500) (void)poll(nullptr, 0, 1);
  }
  FAIL() << "only " << there << " of " << count << " bytes came";
}

inline void send_all(int fd, std::string_view bytes) {
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// What is there, without waiting.
inline std::string read_there(int fd) {
  std::string all(1 << 16, '\0');
  const ssize_t got = recv(fd, all.data(), all.size(), MSG_DONTWAIT);
  all.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return all;
}

// Up to the end of the stream; a reset fails.
inline std::string read_to_end(int fd) {
  std::string all;
  char piece[4096];
  ssize_t got = 0;
  while ((got = recv(fd, piece, sizeof piece, 0)) > 0)
    all.append(piece, static_cast<std::size_t>(got));
  EXPECT_EQ(got, 0) << "the connection was reset";
  return all;
}

}  // namespace vrox
