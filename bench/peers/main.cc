// The daemon's clients and the servers behind it, in one process that checks every
// byte. It is started by bench/soak and by the tests, in a network of their own.
//
//   peers soak SECONDS SEED WORKERS   all services, random peers
//   peers step STREAM_MS DATAGRAM_MS  one exchange for each line "service kind" that is
//                                     read; how long it may stand still
//   peers hold SESSIONS               that many at once; says "open" when they are, and
//                                     goes on when its input ends
//   peers churn CONNECTIONS WORKERS   one after the other
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "peers/clients.h"

namespace peers {
namespace {

bool over = false;
bool goes_on() { return !over; }

constexpr std::array end_names{"ok", "cut", "lost", "stuck", "wrong"};
static_assert(end_names.size() == end_kinds);

void count(End end, const char* what) {
  ++totals.connections;
  ++totals.ends[static_cast<std::size_t>(end)];
  if (end == End::ok || end == End::cut) return;
  std::fprintf(stderr, "%s: %s\n", what, end_names[static_cast<std::size_t>(end)]);
}

// ---- soak -----------------------------------------------------------------------

std::int64_t end_at = 0;
unsigned workers_left = 0;

std::uint32_t random_size(Manner manner, Manner far) {
  const bool slow = manner == Manner::slow || far == Manner::slow;
  constexpr std::array<std::uint32_t, 4> bounds{100, 5'000, 100'000, 1'000'000};
  return random_below(slow ? 50'000 : bounds[random_below(bounds.size())]);
}

Manner random_manner(unsigned kinds) {
  return random_below(3) != 0 ? Manner::polite : static_cast<Manner>(random_below(kinds));
}

Exchange random_exchange() {
  constexpr std::array ports{origin_port, proxy_port,     cipher_proxy_port, local_connect_port,
                             socks5_port, fast_open_port, limited_port};
  Exchange exchange;
  exchange.entry = static_cast<Entry>(random_below(entry_kinds));
  exchange.port = ports[random_below(ports.size())];
  exchange.manner = random_manner(manner_kinds);
  const bool proxied = exchange.port >= proxy_port && exchange.port <= socks5_port;
  if (proxied && random_below(5) == 0) {
    exchange.reception = static_cast<Reception>(random_below(reception_kinds));
  }
  Order& order = exchange.order;
  order.id = random_number();
  order.far = random_manner(manner_kinds - 1);
  order.far_closes = random_below(2) != 0;
  order.up = random_size(exchange.manner, order.far);
  order.down = random_size(exchange.manner, order.far);
  return exchange;
}

Task<bool> random_step() {
  const std::uint32_t dice = random_below(100);
  const auto entry = static_cast<Entry>(random_below(entry_kinds));
  if (dice < 50) {
    const Exchange exchange = random_exchange();
    std::array<char, 100> what{};
    (void)std::snprintf(
        what.data(), what.size(), "stream %d to %d, manners %d %d %d, %u up %u down",
        static_cast<int>(exchange.entry), exchange.port, static_cast<int>(exchange.manner),
        static_cast<int>(exchange.order.far), static_cast<int>(exchange.reception),
        exchange.order.up, exchange.order.down);
    count(co_await exchange_stream(exchange), what.data());
  } else if (dice < 65) {
    count(co_await exchange_http(entry, 1 + random_below(4), 100'000), "HTTP");
  } else if (dice < 82) {
    const auto reception = random_below(4) == 0
                               ? static_cast<Reception>(random_below(reception_kinds))
                               : Reception::polite;
    count(co_await exchange_dns(static_cast<Lookup>(random_below(4)), reception, 4), "DNS");
  } else if (dice < 94) {
    const auto kind = static_cast<Datagrams>(random_below(3));
    count(co_await exchange_udp(kind, 1 + random_below(5), 1400, 4), "UDP");
  } else {
    count(co_await misbehave(), "misbehaviour");
  }
  co_return true;
}

Detached soak_worker() {
  while (now_ms() < end_at) {
    ++totals.open;
    co_await random_step();
    --totals.open;
    co_await pause_ms(random_below(40));
  }
  if (--workers_left == 0) over = true;
}

Detached report() {
  for (;;) {
    std::printf("%llu exchanges, %llu open, %llu bytes",
                static_cast<unsigned long long>(totals.connections),
                static_cast<unsigned long long>(totals.open),
                static_cast<unsigned long long>(totals.bytes));
    for (std::size_t i = 0; i < end_kinds; ++i) {
      std::printf(", %llu %s", static_cast<unsigned long long>(totals.ends[i]), end_names[i]);
    }
    std::printf("\n");
    (void)std::fflush(stdout);
    co_await pause_ms(1000);
  }
}

void soak(std::int64_t seconds, std::uint64_t seed, unsigned workers) {
  seed_random(seed);
  end_at = seconds * 1000;
  workers_left = workers;
  for (unsigned i = 0; i < workers; ++i) soak_worker();
  report();
}

// ---- step -----------------------------------------------------------------------

constexpr unsigned step_datagrams = 2;

Task<End> one_step(const std::string& service, const std::string& kind) {
  constexpr std::uint32_t size = 200'000;  // enough for the relay's way for bulk data
  constexpr std::array entries{"redirect",   "redirect6", "socks", "socks6",
                               "socks_name", "tun",       "tun6"};
  constexpr std::array lookups{"tcp", "http", "again", "device"};
  constexpr std::array datagrams{"relay", "transparent", "device"};
  if (service == "patience") {
    patience_ms = std::atoi(kind.c_str());
    co_return End::ok;
  }
  if (service == "dns") {
    for (std::size_t i = 0; i < lookups.size(); ++i) {
      if (kind == lookups[i])
        co_return co_await exchange_dns(static_cast<Lookup>(i), Reception::polite, 1);
    }
  }
  if (service == "udp") {
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
      if (kind == datagrams[i])
        co_return co_await exchange_udp(static_cast<Datagrams>(i), step_datagrams, 1400, 1);
    }
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (service != entries[i]) continue;
    Exchange exchange;
    exchange.entry = static_cast<Entry>(i);
    exchange.port = static_cast<Port>(std::atoi(kind.c_str()));
    exchange.order = {.id = random_number(),
                      .up = size,
                      .down = size,
                      .far = Manner::polite,
                      .far_closes = random_below(2) != 0};
    if (exchange.port == http_port) co_return co_await exchange_http(exchange.entry, 2, 60'000);
    co_return co_await exchange_stream(exchange);
  }
  std::fprintf(stderr, "no such service: %s %s\n", service.c_str(), kind.c_str());
  co_return End::wrong;
}

Detached step() {
  (void)fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
  Socket input(STDIN_FILENO);
  std::string text;
  for (;;) {
    const std::size_t end = text.find('\n');
    if (end != std::string::npos) {
      const std::size_t blank = text.find(' ');
      const std::uint64_t wrong = totals.ends[static_cast<std::size_t>(End::wrong)];
      End result =
          co_await one_step(text.substr(0, blank), text.substr(blank + 1, end - blank - 1));
      if (totals.ends[static_cast<std::size_t>(End::wrong)] != wrong) result = End::wrong;
      text.erase(0, end + 1);
      std::printf("%s\n", end_names[static_cast<std::size_t>(result)]);
      (void)std::fflush(stdout);
      continue;
    }
    std::array<char, 100> bytes{};
    const ssize_t got = read(input.fd(), bytes.data(), bytes.size());
    if (got > 0) text.append(bytes.data(), static_cast<std::size_t>(got));
    if (got == 0) break;
    if (got == -1) co_await input.event(1'000'000);
  }
  over = true;
}

// ---- load -----------------------------------------------------------------------

constexpr std::uint32_t few_bytes = 100;

Task<bool> send_small_order(Socket& socket, Order& order) {
  order = {.id = random_number(), .up = few_bytes, .down = few_bytes};
  const auto head = write_order(order);
  co_return co_await send_all(socket, head, patience_ms);
}

Task<bool> carry_out(Socket& socket, const Order& order) {
  Flow out = upward(order);
  Flow in = downward(order);
  Keys plain;
  co_return co_await duplex(socket, plain, out, in, Manner::polite) == End::ok;
}

unsigned sessions_due = 0;
unsigned sessions_done = 0;
bool may_go_on = false;

Detached hold_until_input_ends() {
  while (connections_served < sessions_due) co_await pause_ms(10);
  std::puts("open");
  (void)std::fflush(stdout);
  (void)fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
  Socket input(STDIN_FILENO);
  char byte = 0;
  while (read(input.fd(), &byte, 1) != 0) co_await input.event(1'000'000);
  may_go_on = true;
}

// Sends its order, which has the daemon connect to the far end, and waits for the others.
Detached hold_one() {
  Socket socket;
  Order order;
  bool right = co_await enter(socket, Entry::redirect, origin_port, Reception::polite);
  right = right && co_await send_small_order(socket, order);
  while (!may_go_on) co_await pause_ms(100);
  right = right && co_await carry_out(socket, order);
  count(right ? End::ok : End::lost, "held session");
  if (++sessions_done == sessions_due) over = true;
}

Detached hold_all(unsigned sessions) {
  sessions_due = sessions;
  hold_until_input_ends();
  constexpr unsigned on_the_way = 100;  // the daemon's backlog has room for them
  for (unsigned i = 0; i < sessions; ++i) {
    while (i >= connections_served + on_the_way) co_await pause_ms(1);
    hold_one();
  }
}

std::uint64_t connections_left = 0;

Detached churn_worker() {
  while (connections_left > 0) {
    --connections_left;
    Socket socket;
    bool right = co_await enter(socket, Entry::redirect, origin_port, Reception::polite);
    Order order;
    right = right && co_await send_small_order(socket, order) && co_await carry_out(socket, order);
    socket.reset();  // leaves no port behind that waits for stray segments
    count(right ? End::ok : End::lost, "connection");
  }
  if (--workers_left == 0) over = true;
}

std::uint64_t number(const char* text) { return std::strtoull(text, nullptr, 10); }

int run(std::span<char*> arguments) {
  const std::string mode = arguments.size() > 2 ? arguments[1] : "";
  seed_random(static_cast<std::uint64_t>(time(nullptr)));
  start_far_ends();
  if (mode == "soak" && arguments.size() == 5) {
    soak(static_cast<std::int64_t>(number(arguments[2])), number(arguments[3]),
         static_cast<unsigned>(number(arguments[4])));
  } else if (mode == "step" && arguments.size() == 4) {
    patience_ms = static_cast<std::int64_t>(number(arguments[2]));
    datagram_patience_ms = static_cast<std::int64_t>(number(arguments[3]));
    datagrams_per_tunnel = step_datagrams;
    step();
  } else if (mode == "hold") {
    hold_all(static_cast<unsigned>(number(arguments[2])));
  } else if (mode == "churn" && arguments.size() == 4) {
    connections_left = number(arguments[2]);
    workers_left = static_cast<unsigned>(number(arguments[3]));
    for (unsigned i = workers_left; i > 0; --i) churn_worker();
    report();
  } else {
    std::fprintf(stderr, "usage: peers soak|step|hold|churn ...\n");
    return 2;
  }
  if (!over) run_loop(goes_on);
  const auto& ends = totals.ends;
  std::printf("end: %llu exchanges, %llu bytes, %llu lost, %llu stuck, %llu wrong\n",
              static_cast<unsigned long long>(totals.connections),
              static_cast<unsigned long long>(totals.bytes),
              static_cast<unsigned long long>(ends[2]), static_cast<unsigned long long>(ends[3]),
              static_cast<unsigned long long>(ends[4]));
  (void)std::fflush(stdout);
  _exit(ends[2] + ends[3] + ends[4] == 0 ? 0 : 1);  // those still waiting are not asked
}

}  // namespace
}  // namespace peers

int main(int argc, char** argv) { return peers::run({argv, static_cast<std::size_t>(argc)}); }
