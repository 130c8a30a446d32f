// The server behind the proxies: one process, one thread.
//
// It also takes a SOCKS5 greeting and request in front of the load's own request,
// and accepts every address, and it answers an HTTP request with 200 and echoes
// what follows: it stands behind programs that need such an upstream, without
// another hop in the path.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "modes.h"
#include "net.h"
#include "protocol.h"

namespace load {
namespace {

using namespace std::string_view_literals;

struct Peer {
  enum class State { request, http_head, running };
  State state = State::request;
  int fd = -1;
  std::size_t got = 0;  // of the request or the handshake message at hand
  int socks_messages = 0;
  std::size_t matched = 0;  // of the empty line that ends an HTTP head
  Request request;
};

constexpr auto empty_line = "\r\n\r\n"sv;

class Server {
 public:
  Server(std::uint16_t port, const char* counter)
      : listener_(listen_on(SOCK_STREAM, port)), uploaded_(map_counter(counter)) {
    epoll_.add(listener_, EPOLLIN, nullptr);
  }

  [[noreturn]] void run() {
    for (;;) {
      for (const epoll_event& event : epoll_.wait(-1)) {
        auto* peer = static_cast<Peer*>(event.data.ptr);
        if (peer == nullptr) {
          accept_all();
        } else if (!serve(*peer)) {
          (void)close(peer->fd);
          delete peer;
        }
      }
    }
  }

 private:
  void accept_all() {
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;
      auto* peer = new Peer;
      peer->fd = fd;
      epoll_.add(fd, EPOLLIN, peer);
    }
  }

  // False ends the connection.
  bool serve(Peer& peer) {
    switch (peer.state) {
      case Peer::State::request:
        return read_request(peer);
      case Peer::State::http_head:
        return read_chunk(peer, &Server::read_head);
      case Peer::State::running:
        return run(peer);
    }
    return false;
  }

  bool run(Peer& peer) {
    switch (peer.request.operation) {
      case Operation::download: {
        const ssize_t sent = send(peer.fd, chunk_.data(), chunk_.size(), MSG_NOSIGNAL);
        return sent > 0 || not_now(sent);
      }
      case Operation::upload: {
        const ssize_t count = recv(peer.fd, chunk_.data(), chunk_.size(), MSG_TRUNC);
        if (count > 0) *uploaded_ = *uploaded_ + static_cast<std::uint64_t>(count);
        return count > 0 || not_now(count);
      }
      default:
        return read_chunk(peer, &Server::echo);
    }
  }

  bool read_chunk(Peer& peer, bool (*handle)(Peer&, std::string_view)) {
    const ssize_t count = recv(peer.fd, chunk_.data(), chunk_.size(), 0);
    if (count <= 0) return not_now(count);
    return handle(peer, {chunk_.data(), static_cast<std::size_t>(count)});
  }

  static bool echo(Peer& peer, std::string_view bytes) { return send_whole(peer.fd, bytes); }

  bool read_request(Peer& peer) {
    char* const request = &peer.request.magic;
    const ssize_t count = recv(peer.fd, request + peer.got, sizeof(Request) - peer.got, 0);
    if (count <= 0) return not_now(count);
    peer.got += static_cast<std::size_t>(count);
    if (peer.request.magic == 5 && peer.socks_messages < 2) return answer_socks(peer);
    if (peer.request.magic >= 'A') {
      peer.state = Peer::State::http_head;
      return read_head(peer, peer.request.bytes().substr(0, peer.got));
    }
    return peer.got < sizeof(Request) || begin(peer);
  }

  bool begin(Peer& peer) {
    peer.state = Peer::State::running;
    switch (peer.request.operation) {
      case Operation::download:
        epoll_.change(peer.fd, EPOLLOUT, &peer);
        return true;
      case Operation::upload:
        return true;
      default:
        return send_whole(peer.fd, peer.request.bytes());
    }
  }

  // Without authentication, for an IPv4 address: messages of 3 and 10 bytes.
  static bool answer_socks(Peer& peer) {
    if (peer.got < (peer.socks_messages == 0 ? 3U : 10U)) return true;
    peer.got = 0;
    return send_whole(peer.fd, peer.socks_messages++ == 0 ? "\5\0"sv : "\5\0\0\1\0\0\0\0\0\0"sv);
  }

  // The client of a tunnel discards what comes along with the answer, so what came
  // along with the head is not echoed.
  static bool read_head(Peer& peer, std::string_view piece) {
    for (const char byte : piece) {
      peer.matched = byte == empty_line[peer.matched] ? peer.matched + 1 : byte == '\r' ? 1 : 0;
      if (peer.matched < empty_line.size()) continue;
      peer.state = Peer::State::running;
      peer.request.operation = Operation::echo;
      return send_whole(peer.fd, "HTTP/1.1 200 OK\r\n\r\n");
    }
    return true;
  }

  int listener_;
  volatile std::uint64_t* uploaded_;
  Epoll epoll_;
  std::vector<char> chunk_ = std::vector<char>(chunk_size);
};

}  // namespace

void serve(std::uint16_t port, const char* counter) { Server(port, counter).run(); }

}  // namespace load
