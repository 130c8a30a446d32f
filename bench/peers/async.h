// Coroutines over non-blocking sockets, one thread: a peer reads like what it
// does, from top to bottom, and thousands of them run side by side.
#pragma once

#include <netinet/in.h>

#include <array>
#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace peers {

using Bytes = std::span<const std::uint8_t>;

// What runs until its first wait when it is awaited, and hands its result on.
template <class T>
class [[nodiscard]] Task {
 public:
  struct promise_type {
    T value{};
    std::coroutine_handle<> parent = std::noop_coroutine();
    Task get_return_object() {
      return Task(std::coroutine_handle<promise_type>::from_promise(*this));
    }
    std::suspend_always initial_suspend() noexcept { return {}; }
    auto final_suspend() noexcept {
      struct Return {
        bool await_ready() noexcept { return false; }
        std::coroutine_handle<> await_suspend(std::coroutine_handle<promise_type> done) noexcept {
          return done.promise().parent;
        }
        void await_resume() noexcept {}
      };
      return Return{};
    }
    void return_value(T result) { value = std::move(result); }
    void unhandled_exception() {}
  };

  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() {
    if (handle_) handle_.destroy();
  }

  bool await_ready() const { return false; }
  std::coroutine_handle<> await_suspend(std::coroutine_handle<> parent) {
    handle_.promise().parent = parent;
    return handle_;
  }
  T await_resume() { return std::move(handle_.promise().value); }

 private:
  explicit Task(std::coroutine_handle<promise_type> handle) : handle_(handle) {}
  std::coroutine_handle<promise_type> handle_;
};

// What nobody waits for.
struct Detached {
  struct promise_type {
    Detached get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() {}
  };
};

// Milliseconds. Time in which the whole process was stopped counts as a moment, so
// that nobody's patience ends while nobody could act.
std::int64_t now_ms();

// A place to wait at: for a descriptor's next edge, or for a time.
class Waiter {
 public:
  Waiter() = default;
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;
  ~Waiter();

  // True for an edge, false when `ms` have passed.
  auto event(std::int64_t ms) {
    struct Await {
      Waiter& waiter;
      std::int64_t ms;
      bool await_ready() { return std::exchange(waiter.edge_, false); }
      void await_suspend(std::coroutine_handle<> handle) { waiter.suspend(handle, ms); }
      bool await_resume() { return !std::exchange(waiter.timed_out_, false); }
    };
    return Await{*this, ms};
  }
  void wake(bool timed_out);

 private:
  void suspend(std::coroutine_handle<> handle, std::int64_t ms);

  std::coroutine_handle<> handle_;
  std::int64_t deadline_ = 0;
  bool edge_ = false;
  bool timed_out_ = false;
};

Task<bool> pause_ms(std::int64_t ms);

// A socket that is registered with the loop and closed with its owner.
class Socket : public Waiter {
 public:
  explicit Socket(int descriptor = -1) { take(descriptor); }
  ~Socket() { close(); }
  void take(int descriptor);
  void close();
  void reset();  // with RST
  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

using Address = sockaddr_in6;  // of IPv4 the mapped form, as text "1.2.3.4"
Address address(const std::string& text, std::uint16_t port);

// Where connections come from and how they get to the daemon.
struct Path {
  bool marked = false;  // the firewall redirects it
  bool device = false;  // by way of the TUN device
};
Task<bool> dial(Socket& socket, const Address& to, Path path, std::int64_t patience_ms);
int open_datagram(const Address& to, Path path);
int open_listener(std::uint16_t port);
int open_receiver(std::uint16_t port);

Task<bool> send_all(Socket& socket, Bytes bytes, std::int64_t patience_ms);
Task<bool> receive_all(Socket& socket, std::span<std::uint8_t> bytes, std::int64_t patience_ms);
// Up to and including `mark`, not a byte more; empty when it does not come.
Task<std::string> receive_until(Socket& socket, std::string_view mark, std::int64_t patience_ms);

inline Bytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Runs all that was started until `goes_on` says no; it is asked after every pass.
void run_loop(bool (*goes_on)());

}  // namespace peers
