// The TUN device: the options of the Tun section and the descriptor, which is
// either opened and configured here or received from the process that owns the
// interface.
//
// Life: written while the configuration is read, on the main thread; read-only
// afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vrox::event {

enum class TunOption : int {
  mtu = 1,
  unix_path = 2,
  device_path = 3,
  device_name = 4,
  tcp_rmax = 5,
  tcp_wmax = 6,
  addr4 = 7,
  addr6 = 8,
  blocking = 9,
};

// Texts are followed by a terminator.
struct TunOptions {
  std::int32_t mtu = 65535;    // of the interface, and the size of the read buffer
  std::string_view unix_path;  // where the descriptor is received; empty: it is opened here
  std::string_view device_path = "/dev/net/tun";
  std::string_view device_name = "tun3";
  std::int32_t tcp_rmax = 196608;  // per-flow receive limit
  std::int32_t tcp_wmax = 196608;  // per-flow send buffer limit, in bytes
  std::string_view addr4 = "10.5.5.5";
  std::string_view addr6 = "fd00::5";
  bool blocking = false;  // the device is read in blocking mode
};

extern constinit TunOptions tun_options;
extern constinit int tun_fd;  // -1: no device

// Stores one option; texts are copied. A number may come as its text. `blocking`
// takes no value: whatever comes with it, it is switched on. An option that does
// not take such a value is an impossible condition.
void tun_set_option(TunOption option, std::string_view value);
void tun_set_option(TunOption option, std::int32_t value);

// Sets the device up by the options stored so far and returns its descriptor,
// which is in tun_fd too: blocking, and -1 only when the peer on `unix_path`
// sent none. With `unix_path` it waits for that peer. Every failure is an
// impossible condition.
int tun_open();

// The TUN subsystem's way out of impossible conditions: reports file, line and
// condition on standard error, then the system's error text, and aborts.
[[noreturn]] void tun_assertion_failed(int line, const char* condition);

// `line` is a fixed number that names the condition in bug reports; it does not
// follow the source text.
inline void tun_assert(bool holds, int line, const char* condition) {
  if (!holds) tun_assertion_failed(line, condition);
}

// Zeroed memory for the TUN subsystem; want of it is an impossible condition.
[[nodiscard]] void* tun_allocate(std::size_t size);

}  // namespace vrox::event
