#include "net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace load {

void die(const char* call) {
  std::perror(call);
  std::exit(1);
}

sockaddr_in parse_address(std::string_view text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  const std::size_t colon = text.find(':');
  std::uint16_t port = 0;
  const std::string host(text.substr(0, colon));
  if (colon == std::string_view::npos || inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
      std::from_chars(text.data() + colon + 1, text.data() + text.size(), port).ec != std::errc{}) {
    std::fprintf(stderr, "no address: %.*s\n", static_cast<int>(text.size()), text.data());
    std::exit(2);
  }
  address.sin_port = htons(port);
  return address;
}

int new_socket(int type) {
  const int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) die("socket");
  const int on = 1;
  if (type == SOCK_STREAM && setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0) {
    die("setsockopt");
  }
  return fd;
}

void bind_or_connect(int fd, const sockaddr_in& address,
                     int (*call)(int, const sockaddr*, socklen_t)) {
  if (call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 &&
      errno != EINPROGRESS) {
    die(call == connect ? "connect" : "bind");
  }
}

int listen_on(int type, std::uint16_t port) {
  const int fd = new_socket(type);
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) die("setsockopt");
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(port);
  bind_or_connect(fd, any, bind);
  if (type == SOCK_STREAM && listen(fd, SOMAXCONN) < 0) die("listen");
  return fd;
}

bool send_whole(int fd, std::string_view bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::int64_t now_ns() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) < 0) die("clock_gettime");
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

double cpu_seconds() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) < 0) die("getrusage");
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) < 0) die("getrlimit");
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) < 0) die("setrlimit");
}

Epoll::Epoll() : fd_(epoll_create1(EPOLL_CLOEXEC)), ready_(256) {
  if (fd_ < 0) die("epoll_create1");
}

void Epoll::add(int fd, std::uint32_t events, void* data) {
  epoll_event event{events, {data}};
  if (epoll_ctl(fd_, EPOLL_CTL_ADD, fd, &event) < 0) die("epoll_ctl");
}

void Epoll::change(int fd, std::uint32_t events, void* data) {
  epoll_event event{events, {data}};
  if (epoll_ctl(fd_, EPOLL_CTL_MOD, fd, &event) < 0) die("epoll_ctl");
}

std::span<const epoll_event> Epoll::wait(int milliseconds) {
  const int count = epoll_wait(fd_, ready_.data(), static_cast<int>(ready_.size()), milliseconds);
  if (count < 0 && errno != EINTR) die("epoll_wait");
  return std::span(ready_).first(count < 0 ? 0 : static_cast<std::size_t>(count));
}

bool not_now(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EINTR || errno == ENOBUFS);
}

volatile std::uint64_t* map_counter(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) die(path);
  void* memory = mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) die("mmap");
  (void)close(fd);
  return static_cast<volatile std::uint64_t*>(memory);
}

}  // namespace load
