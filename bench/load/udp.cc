// Clients of a SOCKS5 UDP relay whose far end sends everything back: 64 bytes of
// payload there and back, from one client after the other.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>

#include "modes.h"
#include "net.h"

namespace load {
namespace {

constexpr std::size_t outstanding_limit = 64;
constexpr std::int64_t lost_after_ns = 100'000'000;
constexpr int settle_ms = 300;  // until every client's tunnel is open

class UdpClients {
 public:
  explicit UdpClients(const Options& options) : options_(options), fds_(options.conns) {
    for (int& fd : fds_) {
      fd = new_socket(SOCK_DGRAM);
      bind_or_connect(fd, options.to, connect);
      epoll_.add(fd, EPOLLIN, &fd);
    }
  }

  Result run() {
    open_tunnels();
    const std::int64_t started = now_ns();
    const std::int64_t deadline = started + static_cast<std::int64_t>(options_.secs * 1e9);
    heard_ns_ = started;
    std::size_t outstanding = 0;
    std::int64_t now = started;
    result_ = {};
    while ((now = now_ns()) < deadline && result_.done < options_.count) {
      const std::size_t limit = std::min(outstanding_limit, fds_.size());
      for (; outstanding < limit; ++outstanding) send_next();
      const std::uint64_t before = result_.done;
      receive(100);
      outstanding -= std::min<std::size_t>(outstanding, result_.done - before);
      if (result_.done != before) {
        heard_ns_ = now;
      } else if (now - heard_ns_ > lost_after_ns) {
        result_.errors += outstanding;
        outstanding = 0;
        heard_ns_ = now;
      }
    }
    result_.secs = static_cast<double>(now - started) / 1e9;
    return result_;
  }

 private:
  // The first datagram travels along with the request that opens the tunnel, and
  // is not sent back.
  void open_tunnels() {
    for (std::size_t i = 0; i < fds_.size(); ++i) {
      send_next();
      if (i % outstanding_limit == outstanding_limit - 1) receive(10);
    }
    const std::int64_t until = now_ns() + settle_ms * std::int64_t{1'000'000};
    while (now_ns() < until) receive(10);
  }

  void send_next() {
    if (!send_whole(fds_[next_], datagram_)) ++result_.errors;
    next_ = (next_ + 1) % fds_.size();
  }

  void receive(int milliseconds) {
    std::array<char, 128> got{};
    for (const epoll_event& event : epoll_.wait(milliseconds)) {
      const int fd = *static_cast<int*>(event.data.ptr);
      const ssize_t count = recv(fd, got.data(), got.size(), 0);
      if (count == static_cast<ssize_t>(datagram_.size())) ++result_.done;
    }
  }

  const Options& options_;
  std::vector<int> fds_;
  Epoll epoll_;
  // The header of RFC 1928, section 7: the far end answers as 127.0.0.1:4000.
  std::string datagram_ = std::string("\0\0\0\1\177\0\0\1\17\240", 10) + std::string(64, 'x');
  std::size_t next_ = 0;
  std::int64_t heard_ns_ = 0;
  Result result_;
};

}  // namespace

Result load_udp(const Options& options) { return UdpClients(options).run(); }

}  // namespace load
