// DNS queries for `names` names in turn, in batches, and a resolver that knows one
// answer. The client spins instead of sleeping: it is never what is waited for.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>

#include "modes.h"
#include "net.h"

namespace load {
namespace {

constexpr std::size_t batch = 64;
constexpr std::size_t header_size = 12;
constexpr std::size_t max_query = 512;
constexpr std::int64_t lost_after_ns = 100'000'000;

// Messages of one batch, for sendmmsg and recvmmsg.
class Batch {
 public:
  Batch() {
    for (std::size_t i = 0; i < batch; ++i) {
      headers_[i].msg_hdr.msg_iov = &pieces_[i];
      headers_[i].msg_hdr.msg_iovlen = 1;
      hold(i, spaces_[i].data(), spaces_[i].size());
    }
  }
  void hold(std::size_t i, char* data, std::size_t size) { pieces_[i] = {data, size}; }
  [[nodiscard]] mmsghdr* headers() { return headers_.data(); }
  [[nodiscard]] std::string_view message(std::size_t i) const {
    return {spaces_[i].data(), headers_[i].msg_len};
  }

 private:
  std::array<mmsghdr, batch> headers_{};
  std::array<iovec, batch> pieces_{};
  std::array<std::array<char, 1024>, batch> spaces_{};
};

std::string query_for(std::uint64_t number) {
  const std::string host = "host" + std::to_string(number);
  return std::string("\0\0\1\0\0\1\0\0\0\0\0\0", header_size) + static_cast<char>(host.size()) +
         host + std::string("\7example\3net\0\0\1\0\1", 17);
}

bool is_answer(std::string_view message) {
  return message.size() > header_size && (message[2] & '\x80') != 0 && (message[3] & 15) == 0 &&
         message[7] == 1;
}

class Querier {
 public:
  explicit Querier(const Options& options) : options_(options), fd_(new_socket(SOCK_DGRAM)) {
    for (std::uint64_t i = 0; i < options.names; ++i) queries_.push_back(query_for(i));
    bind_or_connect(fd_, options.to, connect);
  }

  Result run() {
    const std::int64_t started = now_ns();
    const std::int64_t deadline = started + static_cast<std::int64_t>(options_.secs * 1e9);
    heard_ns_ = started;
    outstanding_ = 0;
    std::int64_t now = started;
    while ((now = now_ns()) < deadline && result_.done < options_.count) {
      while (outstanding_ < options_.conns) send_batch();
      receive_batch(now);
    }
    result_.secs = static_cast<double>(now - started) / 1e9;
    return result_;
  }

 private:
  void send_batch() {
    const std::size_t wanted = std::min(options_.conns - outstanding_, batch);
    for (std::size_t i = 0; i < wanted; ++i) {
      const std::uint64_t number = sent_ + i;
      std::string& query = queries_[number % queries_.size()];
      query[0] = static_cast<char>(number & 0xff);
      query[1] = static_cast<char>(number >> 8 & 0xff);
      out_.hold(i, query.data(), query.size());
    }
    const int count = sendmmsg(fd_, out_.headers(), static_cast<unsigned>(wanted), 0);
    if (count < 0 && !not_now(count)) die("sendmmsg");
    if (count <= 0) return;
    sent_ += static_cast<std::uint64_t>(count);
    outstanding_ += static_cast<std::size_t>(count);
  }

  void receive_batch(std::int64_t now) {
    const int count = recvmmsg(fd_, in_.headers(), batch, MSG_DONTWAIT, nullptr);
    if (count > 0) {
      heard_ns_ = now;
      for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        ++(is_answer(in_.message(i)) ? result_.done : result_.errors);
        if (outstanding_ != 0) --outstanding_;
      }
    } else if (now - heard_ns_ > lost_after_ns) {
      result_.errors += outstanding_;
      outstanding_ = 0;
      heard_ns_ = now;
    }
  }

  const Options& options_;
  int fd_;
  std::vector<std::string> queries_;
  Batch in_, out_;
  std::uint64_t sent_ = 0;
  std::size_t outstanding_ = 0;
  std::int64_t heard_ns_ = 0;
  Result result_;
};

// Where the question ends; 0 when it does not.
std::size_t end_of_question(std::string_view query) {
  std::size_t at = header_size;
  while (at < query.size() && query[at] != 0) at += static_cast<unsigned char>(query[at]) + 1U;
  at += 5;  // the root label, type and class
  return at <= query.size() ? at : 0;
}

}  // namespace

Result load_dns(const Options& options) { return Querier(options).run(); }

void reflect_dns(std::uint16_t port) {
  static constexpr std::string_view record("\300\14\0\1\0\1\0\0\16\20\0\4\300\0\2\1", 16);
  const int fd = listen_on(SOCK_DGRAM, port);
  Epoll epoll;
  epoll.add(fd, EPOLLIN, nullptr);
  std::array<char, max_query + record.size()> message{};
  for (;;) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    auto* const address = reinterpret_cast<sockaddr*>(&peer);
    const ssize_t count = recvfrom(fd, message.data(), max_query, 0, address, &size);
    if (count < 0) {
      (void)epoll.wait(-1);
      continue;
    }
    const std::size_t end = end_of_question({message.data(), static_cast<std::size_t>(count)});
    if (end == 0) continue;
    message[2] = '\x81';
    message[3] = '\x80';
    std::ranges::copy(std::string_view("\0\1\0\1\0\0\0\0", 8), &message[4]);
    std::ranges::copy(record, &message[end]);
    (void)sendto(fd, message.data(), end + record.size(), 0, address, size);
  }
}

}  // namespace load
