// Preloaded into the daemon by tests/system/lib/faults.py: makes the n-th call of
// one kind fail, as the kernel or the allocator could. A page shared with the test
// tells which; thousands of faults need no restart.
//
// Want of data or of room (EAGAIN, a short count) is not only told: on an
// edge-triggered socket the kernel would send an edge when it is over, so the
// descriptor is registered anew behind the caller's back, which brings one.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

// In the order of KINDS in faults.py.
// clang-format off
enum Kind : std::uint32_t {
  none, k_socket, k_connect, k_accept, k_epoll_add, k_epoll_wait, k_memory, k_recv, k_recvmmsg,
  k_send, k_sendmmsg, k_splice, k_pipe, k_read, k_write, k_open, k_socket_option, k_socket_name,
  k_bind, k_listen, k_mmap, k_eventfd, k_timer, k_epoll_create, k_fcntl, k_poll, kind_count
};
// clang-format on

// Shared with the test, which writes `kind` last.
struct Page {
  std::atomic<std::uint32_t> kind;
  std::atomic<std::int32_t> error;  // 0: a short count instead
  std::atomic<std::int32_t> countdown;
  std::atomic<std::uint32_t> fired;
  std::array<std::atomic<std::uint32_t>, kind_count> calls;
};

Page* page = nullptr;

constexpr int max_fds = 65536;
struct Registration {
  int epoll_fd;
  epoll_event event;
};
std::array<Registration, max_fds> registrations{};  // epoll_fd 0: none

__attribute__((constructor)) void open_page() {
  const char* path = std::getenv("FAULT_PAGE");
  const int fd = path == nullptr ? -1 : open(path, O_RDWR);
  if (fd == -1) return;
  void* mapped = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped != MAP_FAILED) page = static_cast<Page*>(mapped);
}

// The next definition of what is replaced here.
template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define REAL(name)                          \
  (*[] {                                    \
    static auto* real = next(&name, #name); \
    return real;                            \
  }())

bool fires(Kind kind) {
  if (page == nullptr) return false;
  page->calls[kind].fetch_add(1, std::memory_order_relaxed);
  if (page->kind.load(std::memory_order_acquire) != kind) return false;
  if (page->countdown.fetch_sub(1) != 1) return false;
  page->fired.fetch_add(1);
  return true;
}

bool is_short() { return page->error.load() == 0; }
int fail() {
  errno = page->error.load();
  return -1;
}

void announce(int fd) {
  if (fd < 0 || fd >= max_fds) return;
  Registration& known = registrations[static_cast<std::size_t>(fd)];
  if (known.epoll_fd == 0) return;
  const int error = errno;
  (void)REAL(epoll_ctl)(known.epoll_fd, EPOLL_CTL_MOD, fd, &known.event);
  errno = error;
}

int refuse(int fd) {
  const int result = fail();
  if (errno == EAGAIN) announce(fd);
  return result;
}

// A datagram is never cut by the kernel's want of anything.
bool is_stream(int fd) {
  int type = 0;
  socklen_t length = sizeof type;
  return REAL(getsockopt)(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// What is left of a transfer that is to be short: about a third.
std::size_t cut(int fd, std::size_t size) {
  if (!is_stream(fd)) return size;
  announce(fd);
  return size / 3 + 1;
}

}  // namespace

extern "C" {

#define FAILS(kind, type, name, parameters, arguments, ...) \
  type name parameters __VA_ARGS__ { return fires(kind) ? fail() : REAL(name) arguments; }
FAILS(k_socket, int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILS(k_accept, int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags),
      (fd, address, length, flags))
FAILS(k_epoll_wait, int, epoll_wait, (int epoll_fd, epoll_event* events, int most, int timeout),
      (epoll_fd, events, most, timeout))
FAILS(k_pipe, int, pipe2, (int* ends, int flags), (ends, flags), noexcept)
FAILS(k_read, ssize_t, read, (int fd, void* bytes, size_t size), (fd, bytes, size))
FAILS(k_write, ssize_t, writev, (int fd, const iovec* parts, int count), (fd, parts, count))
FAILS(k_socket_option, int, setsockopt,
      (int fd, int level, int name, const void* value, socklen_t length),
      (fd, level, name, value, length), noexcept)
FAILS(k_socket_option, int, getsockopt,
      (int fd, int level, int name, void* value, socklen_t* length),
      (fd, level, name, value, length), noexcept)
FAILS(k_socket_name, int, getsockname, (int fd, sockaddr* address, socklen_t* length),
      (fd, address, length), noexcept)
FAILS(k_bind, int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length),
      noexcept)
FAILS(k_listen, int, listen, (int fd, int backlog), (fd, backlog), noexcept)
FAILS(k_eventfd, int, eventfd, (unsigned value, int flags), (value, flags), noexcept)
FAILS(k_timer, int, timerfd_create, (int clock, int flags), (clock, flags), noexcept)
FAILS(k_epoll_create, int, epoll_create, (int size), (size), noexcept)
FAILS(k_poll, int, poll, (pollfd * asked, nfds_t count, int timeout), (asked, count, timeout))

// An interrupted one goes on in the kernel (POSIX, connect).
int connect(int fd, const sockaddr* address, socklen_t length) {
  if (!fires(k_connect)) return REAL(connect)(fd, address, length);
  if (page->error.load() == EINTR) (void)REAL(connect)(fd, address, length);
  return fail();
}

// Only an addition takes memory: changing and taking out always succeed.
int epoll_ctl(int epoll_fd, int operation, int fd, epoll_event* event) noexcept {
  if (operation == EPOLL_CTL_ADD && fires(k_epoll_add)) return fail();
  const int result = REAL(epoll_ctl)(epoll_fd, operation, fd, event);
  if (result == 0 && fd >= 0 && fd < max_fds) {
    Registration& known = registrations[static_cast<std::size_t>(fd)];
    known = operation == EPOLL_CTL_DEL ? Registration{} : Registration{epoll_fd, *event};
  }
  return result;
}

int close(int fd) {
  if (fd >= 0 && fd < max_fds) registrations[static_cast<std::size_t>(fd)] = {};
  return REAL(close)(fd);
}

ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  if (!fires(k_recv)) return REAL(recv)(fd, bytes, size, flags);
  return is_short() ? REAL(recv)(fd, bytes, cut(fd, size), flags) : refuse(fd);
}
ssize_t __recv_chk(int fd, void* bytes, size_t size, size_t, int flags) {
  return recv(fd, bytes, size, flags);
}

int recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout) {
  if (!fires(k_recvmmsg)) return REAL(recvmmsg)(fd, messages, count, flags, timeout);
  return is_short() ? REAL(recvmmsg)(fd, messages, 1, flags, timeout) : refuse(fd);
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  if (!fires(k_send)) return REAL(send)(fd, bytes, size, flags);
  return is_short() ? REAL(send)(fd, bytes, cut(fd, size), flags) : refuse(fd);
}
ssize_t sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
               socklen_t length) {
  if (!fires(k_send)) return REAL(sendto)(fd, bytes, size, flags, to, length);
  return is_short() ? REAL(sendto)(fd, bytes, cut(fd, size), flags, to, length) : refuse(fd);
}

int sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags) {
  if (!fires(k_sendmmsg)) return REAL(sendmmsg)(fd, messages, count, flags);
  return is_short() ? REAL(sendmmsg)(fd, messages, 1, flags) : fail();
}

ssize_t splice(int in, loff_t* in_at, int out, loff_t* out_at, size_t size, unsigned flags) {
  if (!fires(k_splice)) return REAL(splice)(in, in_at, out, out_at, size, flags);
  const int socket_fd = is_stream(in) ? in : out;
  if (!is_short()) return refuse(socket_fd);
  return REAL(splice)(in, in_at, out, out_at, cut(socket_fd, size), flags);
}

// What the daemon asks of the kernel past the C library: packets, and input that
// nobody wants.
long syscall(long number, ...) noexcept {
  std::array<long, 6> values{};
  va_list rest;
  va_start(rest, number);
  for (long& value : values) value = va_arg(rest, long);
  va_end(rest);
  const auto pass = [&] {
    return REAL(syscall)(number, values[0], values[1], values[2], values[3], values[4], values[5]);
  };
  const int fd = static_cast<int>(values[0]);
  if (number == SYS_preadv2 && fires(k_read)) return fail();
  if (number != SYS_recvfrom || !fires(k_recv)) return pass();
  if (!is_short()) return refuse(fd);
  values[2] = static_cast<long>(cut(fd, static_cast<std::size_t>(values[2])));
  return pass();
}

// One to an eventfd cannot fail before it overflows.
ssize_t write(int fd, const void* bytes, size_t size) {
  return size != sizeof(std::uint64_t) && fires(k_write) ? fail() : REAL(write)(fd, bytes, size);
}
int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int);
  va_end(rest);
  return fires(k_open) ? fail() : REAL(open)(path, flags, mode);
}
FILE* fopen(const char* path, const char* mode) {
  if (!fires(k_open)) return REAL(fopen)(path, mode);
  fail();
  return nullptr;
}

int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  return fires(k_fcntl) ? fail() : REAL(fcntl)(fd, command, argument);
}
// ---- memory ---------------------------------------------------------------------

#ifndef BESIDE_SANITIZER  // which must have these for itself
void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  if (!fires(k_mmap)) return REAL(mmap)(at, size, protection, flags, fd, offset);
  fail();
  return MAP_FAILED;
}

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* old, size_t size);

void* no_memory() {
  errno = ENOMEM;
  return nullptr;
}
void* malloc(size_t size) noexcept { return fires(k_memory) ? no_memory() : __libc_malloc(size); }
void* calloc(size_t count, size_t size) noexcept {
  return fires(k_memory) ? no_memory() : __libc_calloc(count, size);
}
void* realloc(void* old, size_t size) noexcept {
  return fires(k_memory) ? no_memory() : __libc_realloc(old, size);
}
#endif

}  // extern "C"

// A sanitizer's does not end at malloc().
void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
  using Real = void*(std::size_t, const std::nothrow_t&);
  static auto* real = reinterpret_cast<Real*>(dlsym(RTLD_NEXT, "_ZnwmRKSt9nothrow_t"));
  return fires(k_memory) ? nullptr : real(size, tag);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  using Real = void*(std::size_t, const std::nothrow_t&);
  static auto* real = reinterpret_cast<Real*>(dlsym(RTLD_NEXT, "_ZnamRKSt9nothrow_t"));
  return fires(k_memory) ? nullptr : real(size, tag);
}
