// Connections of a load, each on its way to the server: straight, or through the
// handshake of a proxy. What happens then is the mode's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "modes.h"
#include "net.h"
#include "protocol.h"

namespace load {

struct Conn {
  enum class State { connecting, socks_method, socks_reply, http_reply, open };
  State state = State::connecting;
  int fd = -1;
  std::int64_t sent_at_ns = 0;
  std::size_t got = 0;  // of the answer at hand
  std::array<char, 256> answer{};
};

class Client {
 public:
  explicit Client(const Options& options);
  virtual ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  [[nodiscard]] Result run();

 protected:
  // The path to the server is open. False, here and below: the connection failed.
  [[nodiscard]] virtual bool opened(Conn& conn) = 0;
  // Something can be read (or written, if that was asked for).
  [[nodiscard]] virtual bool ready(Conn& conn) = 0;
  // Most modes need all of their connections.
  virtual void failed(Conn& conn);

  void open(Conn& conn);
  void close(Conn& conn);
  [[nodiscard]] bool request(Conn& conn, Operation operation);

  enum class Answer { whole, partial, failed };
  // Reads on until the answer has `size` bytes.
  [[nodiscard]] static Answer read_answer(Conn& conn, std::size_t size);

  void start_clock();
  [[nodiscard]] bool time_is_up() const { return now_ns() >= deadline_ns_; }

  const Options& options_;
  std::vector<Conn> conns_;
  Epoll epoll_;
  Result result_;
  bool stop_ = false;
  std::size_t open_at_first_ = 0;  // the mode opens the others itself

 private:
  [[nodiscard]] bool handshake(Conn& conn);
  [[nodiscard]] bool connected(Conn& conn);
  [[nodiscard]] bool read_socks_method(Conn& conn);
  [[nodiscard]] bool read_socks_reply(Conn& conn);
  [[nodiscard]] bool read_http_reply(Conn& conn);
  [[nodiscard]] bool ask_http(Conn& conn) const;
  [[nodiscard]] bool is_open(Conn& conn);

  std::int64_t started_ns_ = 0;
  std::int64_t deadline_ns_ = 0;
};

// A mode whose connections all begin their work together, when the last is open;
// time counts from there.
class TogetherClient : public Client {
 public:
  using Client::Client;

 protected:
  [[nodiscard]] bool opened(Conn& conn) final;
  [[nodiscard]] virtual bool begin(Conn& conn) = 0;

 private:
  std::size_t open_count_ = 0;
};

}  // namespace load
