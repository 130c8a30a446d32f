#include "peers/async.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <vector>

namespace peers {

namespace {

constexpr std::int64_t longest_step_ms = 500;
constexpr int redirect_mark = 7;
constexpr char tun_device[] = "tun3";

std::int64_t clock_now = 0;
std::int64_t clock_seen = 0;
std::set<std::pair<std::int64_t, Waiter*>> timers;
std::vector<Waiter*> by_descriptor;  // null: nobody
const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);

void read_clock() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t ms = now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
  if (clock_seen != 0) clock_now += std::min(ms - clock_seen, longest_step_ms);
  clock_seen = ms;
}

int checked(int result, const char* call) {
  if (result != -1) return result;
  std::perror(call);
  std::exit(EXIT_FAILURE);
}

template <class T>
void set_option(int fd, int level, int name, T value) {
  (void)setsockopt(fd, level, name, &value, sizeof value);
}

const sockaddr* generic(const Address& to) { return reinterpret_cast<const sockaddr*>(&to); }

int open_socket(int kind, Path path) {
  const int fd = checked(socket(AF_INET6, kind | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket()");
  set_option(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  if (path.marked) set_option(fd, SOL_SOCKET, SO_MARK, redirect_mark);
  if (path.device) (void)setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, tun_device, sizeof tun_device);
  return fd;
}

int open_bound(int kind, std::uint16_t port) {
  const int fd = open_socket(kind, {});
  set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  const Address any = address("::", port);
  checked(bind(fd, generic(any), sizeof any), "bind()");
  return fd;
}

// The daemon's engine tells flows apart by the client's port alone, and the kernel
// likes to take the same one for several destinations.
void bind_to_next_port(int fd) {
  constexpr std::uint16_t first = 10'000;
  constexpr std::uint16_t last = 60'000;
  static std::uint16_t port = first;
  for (int attempts = 0; attempts < 100; ++attempts) {
    port = port == last ? first : static_cast<std::uint16_t>(port + 1);
    const Address any = address("::", port);
    if (bind(fd, generic(any), sizeof any) == 0) return;
  }
}

}  // namespace

std::int64_t now_ms() { return clock_now; }

Waiter::~Waiter() {
  if (handle_) timers.erase({deadline_, this});
}

void Waiter::suspend(std::coroutine_handle<> handle, std::int64_t ms) {
  handle_ = handle;
  deadline_ = now_ms() + ms;
  timers.insert({deadline_, this});
}

void Waiter::wake(bool timed_out) {
  if (!handle_) {
    edge_ = !timed_out;
    return;
  }
  timers.erase({deadline_, this});
  timed_out_ = timed_out;
  std::exchange(handle_, nullptr).resume();
}

Task<bool> pause_ms(std::int64_t ms) {
  Waiter nobody;
  co_return co_await nobody.event(ms);
}

void Socket::take(int descriptor) {
  close();
  fd_ = descriptor;
  if (fd_ == -1) return;
  const auto index = static_cast<std::size_t>(fd_);
  if (by_descriptor.size() <= index) by_descriptor.resize(index + 1);
  by_descriptor[index] = this;
  epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, .data = {.fd = fd_}};
  checked(epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd_, &event), "epoll_ctl()");
}

void Socket::close() {
  if (fd_ == -1) return;
  by_descriptor[static_cast<std::size_t>(fd_)] = nullptr;
  (void)::close(std::exchange(fd_, -1));
}

void Socket::reset() {
  if (fd_ != -1) set_option(fd_, SOL_SOCKET, SO_LINGER, linger{.l_onoff = 1, .l_linger = 0});
  close();
}

Address address(const std::string& text, std::uint16_t port) {
  Address result{};
  result.sin6_family = AF_INET6;
  result.sin6_port = htons(port);
  const std::string whole = text.find(':') == std::string::npos ? "::ffff:" + text : text;
  checked(inet_pton(AF_INET6, whole.c_str(), &result.sin6_addr) - 1, "inet_pton()");
  return result;
}

Task<bool> dial(Socket& socket, const Address& to, Path path, std::int64_t patience_ms) {
  const int fd = open_socket(SOCK_STREAM, path);
  set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  if (path.device) bind_to_next_port(fd);
  const int result = connect(fd, generic(to), sizeof to);
  const bool under_way = result == -1 && errno == EINPROGRESS;
  socket.take(fd);
  if (result == 0) co_return true;
  if (!under_way) co_return false;
  // A registration may tell of the unconnected socket's hang-up first.
  for (;;) {
    if (!co_await socket.event(patience_ms)) co_return false;
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) co_return false;
    Address peer{};
    length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) co_return true;
  }
}

int open_datagram(const Address& to, Path path) {
  const int fd = open_socket(SOCK_DGRAM, path);
  set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20);
  checked(connect(fd, generic(to), sizeof to), "connect()");
  return fd;
}

int open_listener(std::uint16_t port) {
  const int fd = open_bound(SOCK_STREAM, port);
  checked(listen(fd, 4096), "listen()");
  return fd;
}

int open_receiver(std::uint16_t port) { return open_bound(SOCK_DGRAM, port); }

Task<bool> send_all(Socket& socket, Bytes bytes, std::int64_t patience_ms) {
  while (!bytes.empty()) {
    const ssize_t sent = send(socket.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN || !co_await socket.event(patience_ms)) {
      co_return false;
    }
  }
  co_return true;
}

Task<bool> receive_all(Socket& socket, std::span<std::uint8_t> bytes, std::int64_t patience_ms) {
  while (!bytes.empty()) {
    const ssize_t got = recv(socket.fd(), bytes.data(), bytes.size(), 0);
    if (got > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EAGAIN || !co_await socket.event(patience_ms)) {
      co_return false;
    }
  }
  co_return true;
}

Task<std::string> receive_until(Socket& socket, std::string_view mark, std::int64_t patience_ms) {
  constexpr std::size_t longest = 8192;
  std::string text;
  std::array<char, longest> bytes{};
  while (text.size() < longest) {
    const ssize_t got = recv(socket.fd(), bytes.data(), bytes.size(), MSG_PEEK);
    if (got < 1) {
      if (got == 0 || errno != EAGAIN || !co_await socket.event(patience_ms)) co_return {};
      continue;
    }
    const std::size_t before = text.size();
    text.append(bytes.data(), static_cast<std::size_t>(got));
    const std::size_t at = text.find(mark);
    if (at != std::string::npos) text.resize(at + mark.size());
    (void)recv(socket.fd(), bytes.data(), text.size() - before, 0);
    if (at != std::string::npos) co_return text;
  }
  co_return {};
}

void run_loop(bool (*goes_on)()) {
  std::array<epoll_event, 512> events{};
  do {
    const std::int64_t left = timers.empty() ? 1000 : timers.begin()->first - now_ms();
    const int wait = static_cast<int>(std::clamp<std::int64_t>(left, 0, 1000));
    const int ready = epoll_wait(epoll_fd, events.data(), events.size(), wait);
    read_clock();
    for (int i = 0; i < ready; ++i) {
      const auto fd = static_cast<std::size_t>(events[static_cast<std::size_t>(i)].data.fd);
      if (by_descriptor[fd] != nullptr) by_descriptor[fd]->wake(false);
    }
    while (!timers.empty() && timers.begin()->first <= now_ms()) timers.begin()->second->wake(true);
  } while (goes_on());
}

}  // namespace peers
