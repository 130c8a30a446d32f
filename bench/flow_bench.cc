#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "event/device.h"
#include "tun/flow.h"

namespace {

using namespace vrox;

constinit std::uint64_t taken = 0;

// A proxy that takes everything at once, as one with a fast upstream does.
void take_all(tun::TunRecord& record) {
  auto& flow = static_cast<tun::TunFlow&>(record);
  const std::size_t count = tun::tun_flow_at_hand(flow).size();
  if (count != 0) tun::tun_flow_took(flow, count);
  taken += count;
}

class Client {
 public:
  explicit Client(std::uint32_t number) {
    route_.source = {10, static_cast<std::uint8_t>(number >> 16),
                     static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
    route_.destination = {192, 0, 2, 7};
    route_.source_port_be = route_.destination_port_be = 443;
    send(tun::syn, {});
    ++sequence_;
    send(tun::ack, {});
  }

  void send(unsigned flags, tun::Bytes payload) {
    tun::HeaderBuffer buffer;
    const tun::Bytes header = tun::build_tcp(buffer, route_,
                                             {.sequence = sequence_,
                                              .acknowledgement = 1,
                                              .flags = static_cast<std::uint8_t>(flags),
                                              .window = 65535,
                                              .mss = {}},
                                             tun::sum_up({payload, {}}));
    std::copy(header.begin(), header.end(), packet_.begin());
    std::copy(payload.begin(), payload.end(),
              packet_.begin() + static_cast<std::ptrdiff_t>(header.size()));
    const auto bytes = std::span(packet_).first(header.size() + payload.size());
    const auto ip = tun::parse_ip(bytes);
    const auto segment = tun::parse_tcp(*ip);
    tun::tun_handle_tcp(*ip, *segment, bytes.size());
    tun::tun_deliver();
    sequence_ += static_cast<std::uint32_t>(payload.size());
  }

 private:
  inline static std::vector<std::uint8_t> packet_ = std::vector<std::uint8_t>(2000);
  tun::Route route_;
  std::uint32_t sequence_ = 1;
};

// Building, look-up, parsing and acknowledgement of one segment of 1,460 bytes,
// each of another connection, without the device.
void one_segment(benchmark::State& state) {
  event::tun_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  tun::tun_open_flows(take_all);
  std::vector<Client> clients;
  for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(state.range(0)); ++i) {
    clients.emplace_back(i);
  }
  const std::vector<std::uint8_t> payload(1460, 'x');
  std::size_t turn = 0;
  for (auto step : state) {
    (void)step;
    clients[turn].send(tun::psh | tun::ack, payload);
    turn = turn + 7919 < clients.size() ? turn + 7919 : (turn + 7919) % clients.size();
  }
  benchmark::DoNotOptimize(taken);
  for (Client& client : clients) client.send(tun::rst | tun::ack, {});
}
BENCHMARK(one_segment)->Arg(10)->Arg(1000)->Arg(10000);

}  // namespace
