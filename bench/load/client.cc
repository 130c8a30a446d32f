#include "client.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace load {

namespace {

using namespace std::string_view_literals;

constexpr double patience_secs = 15;  // for connections to open

}  // namespace

Client::Client(const Options& options)
    : options_(options), conns_(options.conns), open_at_first_(options.conns) {}

Result Client::run() {
  start_clock();
  deadline_ns_ = started_ns_ + static_cast<std::int64_t>(patience_secs * 1e9);
  for (std::size_t i = 0; i < open_at_first_; ++i) open(conns_[i]);
  while (!stop_ && !time_is_up()) {
    for (const epoll_event& event : epoll_.wait(100)) {
      Conn& conn = *static_cast<Conn*>(event.data.ptr);
      if (stop_ || conn.fd < 0) continue;
      if (conn.state == Conn::State::open ? ready(conn) : handshake(conn)) continue;
      ++result_.errors;
      failed(conn);
    }
  }
  result_.secs = static_cast<double>(now_ns() - started_ns_) / 1e9;
  return result_;
}

void Client::start_clock() {
  started_ns_ = now_ns();
  deadline_ns_ = started_ns_ + static_cast<std::int64_t>(options_.secs * 1e9);
}

void Client::failed(Conn& conn) {
  close(conn);
  stop_ = true;
}

void Client::open(Conn& conn) {
  conn.state = Conn::State::connecting;
  conn.got = 0;
  conn.fd = new_socket(SOCK_STREAM);
  bind_or_connect(conn.fd, options_.to, connect);
  epoll_.add(conn.fd, EPOLLOUT, &conn);
}

void Client::close(Conn& conn) {
  (void)::close(conn.fd);
  conn.fd = -1;
}

bool Client::request(Conn& conn, Operation operation) {
  Request request;
  request.operation = operation;
  conn.got = 0;
  conn.sent_at_ns = now_ns();
  return send_whole(conn.fd, request.bytes());
}

Client::Answer Client::read_answer(Conn& conn, std::size_t size) {
  const ssize_t count = recv(conn.fd, conn.answer.data() + conn.got, size - conn.got, 0);
  if (count <= 0) return not_now(count) ? Answer::partial : Answer::failed;
  conn.got += static_cast<std::size_t>(count);
  return conn.got == size ? Answer::whole : Answer::partial;
}

// ---- through a proxy's handshake ------------------------------------------------

bool Client::handshake(Conn& conn) {
  switch (conn.state) {
    case Conn::State::connecting:
      return connected(conn);
    case Conn::State::socks_method:
      return read_socks_method(conn);
    case Conn::State::socks_reply:
      return read_socks_reply(conn);
    case Conn::State::http_reply:
      return read_http_reply(conn);
    case Conn::State::open:
      break;
  }
  return false;
}

bool Client::connected(Conn& conn) {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(conn.fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0 || error != 0) return false;
  epoll_.change(conn.fd, EPOLLIN, &conn);
  if (options_.via == "http") return ask_http(conn);
  if (options_.via == "none") return is_open(conn);
  conn.state = Conn::State::socks_method;
  return send_whole(conn.fd, "\5\1\0"sv);
}

bool Client::read_socks_method(Conn& conn) {
  const Answer answer = read_answer(conn, 2);
  if (answer != Answer::whole) return answer == Answer::partial;
  if (conn.answer[1] != 0) return false;
  std::array<char, 10> message{5, 1, 0, 1};
  std::memcpy(&message[4], &options_.dst.sin_addr, 4);
  std::memcpy(&message[8], &options_.dst.sin_port, 2);
  conn.got = 0;
  conn.state = Conn::State::socks_reply;
  return send_whole(conn.fd, {message.data(), message.size()});
}

bool Client::read_socks_reply(Conn& conn) {
  const Answer answer = read_answer(conn, 10);
  if (answer != Answer::whole) return answer == Answer::partial;
  return conn.answer[1] == 0 && is_open(conn);
}

bool Client::ask_http(Conn& conn) const {
  std::array<char, INET_ADDRSTRLEN> host{};
  (void)inet_ntop(AF_INET, &options_.dst.sin_addr, host.data(), host.size());
  std::array<char, 128> head{};
  const int port = ntohs(options_.dst.sin_port);
  const int size =
      std::snprintf(head.data(), head.size(), "CONNECT %s:%d HTTP/1.1\r\nHost: %s:%d\r\n\r\n",
                    host.data(), port, host.data(), port);
  conn.state = Conn::State::http_reply;
  return send_whole(conn.fd, {head.data(), static_cast<std::size_t>(size)});
}

bool Client::read_http_reply(Conn& conn) {
  if (read_answer(conn, conn.answer.size()) != Answer::partial) return false;
  const std::string_view reply(conn.answer.data(), conn.got);
  if (reply.find("\r\n\r\n") == std::string_view::npos) return true;
  return reply.substr(8, 4) == " 200" && is_open(conn);
}

bool Client::is_open(Conn& conn) {
  conn.state = Conn::State::open;
  conn.got = 0;
  return opened(conn);
}

// ---- all together ---------------------------------------------------------------

bool TogetherClient::opened(Conn&) {
  if (++open_count_ < conns_.size()) return true;
  start_clock();
  for (Conn& each : conns_) {
    if (!begin(each)) return false;
  }
  return true;
}

}  // namespace load
