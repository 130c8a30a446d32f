#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "event/device.h"
#include "event/loop.h"
#include "main/clock.h"
#include "tun/flow.h"

namespace vrox::tun {
namespace {

using Octets = std::vector<std::uint8_t>;

constexpr std::uint32_t client_isn = 0xfffffff0;  // soon past the end of the numbers
constexpr std::uint8_t versions[] = {ip_v4, ip_v6};

std::function<void(TunFlow&)> on_flow;  // what the proxy does when it is told of a flow
TunFlow* flow = nullptr;                // the last one
std::string told;                       // the kinds it was told of, as digits

void handle(TunRecord& record) {
  flow = &static_cast<TunFlow&>(record);
  EXPECT_EQ(flow->kind < 0x10, flow->version() == ip_v4);
  told += static_cast<char>('0' + (flow->kind < 0x10 ? flow->kind : flow->kind >> 4));
  if (on_flow) on_flow(*flow);
}

std::uint32_t size32(std::size_t size) { return static_cast<std::uint32_t>(size); }

// What the engine wrote to the device, as a client's TCP reads it.
struct Sent {
  Octets packet;
  std::uint8_t version = 0;
  TcpSegment segment;
};

bool has_right_checksum(const IpPacket& packet) {
  const std::size_t size = packet.transport.size();
  const std::array<std::uint8_t, 4> rest{0, protocol_tcp, static_cast<std::uint8_t>(size >> 8),
                                         static_cast<std::uint8_t>(size)};
  const std::size_t address = packet.version == ip_v4 ? 4 : 16;
  ChecksumSum sum;
  for (const Bytes piece :
       {Bytes(packet.source).first(address), Bytes(packet.destination).first(address), Bytes(rest),
        packet.transport}) {
    sum.add(piece);
  }
  return sum.finish() == 0;
}

// The device is one end of a pair of sockets; here is the other one.
class Link {
 public:
  Link() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends_), 0);
    const int several_packets = 212992;
    EXPECT_EQ(setsockopt(ends_[1], SOL_SOCKET, SO_SNDBUF, &several_packets, sizeof(int)), 0);
    event::tun_fd = ends_[0];
    event::tun_options.blocking = true;
    EXPECT_TRUE(loop_.open(1) && event::tun_attach(loop_, handle));
  }

  void put(const Route& route, const TcpFields& fields, std::string_view payload = {}) {
    const Bytes bytes{reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()};
    HeaderBuffer buffer;
    const Bytes header = build_tcp(buffer, route, fields, sum_up({bytes, {}}));
    Octets packet(header.begin(), header.end());
    packet.insert(packet.end(), bytes.begin(), bytes.end());
    EXPECT_GT(::send(ends_[1], packet.data(), packet.size(), 0), 0);
  }
  // All that was put is handled in one pass.
  void pump() { event::tun_event_loop(); }

  std::optional<Sent> next() {
    static Octets buffer(70000);
    const ssize_t length = recv(ends_[1], buffer.data(), buffer.size(), 0);
    if (length < 0) return std::nullopt;
    Sent sent;
    sent.packet.assign(buffer.begin(), buffer.begin() + length);
    const auto ip = parse_ip(sent.packet);
    const auto tcp = ip ? parse_tcp(*ip) : std::nullopt;
    EXPECT_TRUE(tcp || sent.packet[0] >> 4 == ip_v6) << "what is written fits its own lengths";
    sent.version = sent.packet[0] >> 4;
    if (tcp && (tcp->flags & TcpFlag::rst) == 0) {
      EXPECT_TRUE(has_right_checksum(*ip));
    }
    sent.segment = tcp.value_or(TcpSegment{.flags = TcpFlag::rst | TcpFlag::ack, .payload = {}});
    return sent;
  }

 private:
  int ends_[2] = {-1, -1};
  Loop loop_;
};

Link& device() {
  static Link link;
  return link;
}

std::string shown(std::string_view text) {
  return text.size() > 20 ? "#" + std::to_string(text.size()) : std::string(text);
}

std::uint8_t flag_of(char letter) {
  return static_cast<std::uint8_t>(1U << std::string_view("FSRPA").find(letter));
}

// As flags, sequence and acknowledgement number (of the bytes behind the SYN's),
// and what is not usual: "PA 1 9 w100 'text'".
std::string shown(const Sent& sent) {
  const TcpSegment& segment = sent.segment;
  std::string text;
  for (const char letter : std::string_view("SFRPA")) {
    if ((segment.flags & flag_of(letter)) != 0) text += letter;
  }
  if ((segment.flags & TcpFlag::rst) != 0) return text;
  text += " " + std::to_string(segment.sequence) + " " +
          std::to_string(segment.acknowledgement - client_isn);
  if (segment.window != 65535) text += " w" + std::to_string(segment.window);
  if (sent.packet.size() - segment.payload.size() == ip_header(sent.version) + 24) {
    const auto mss = std::span(sent.packet).last(4);
    const std::uint16_t largest = sent.version == ip_v4 ? 65491 : 65471;
    text += mss[2] * 256 + mss[3] == largest && mss[0] == 2 && mss[1] == 4 ? " mss" : " options";
  }
  if (segment.payload.empty()) return text;
  return text + " '" +
         shown({reinterpret_cast<const char*>(segment.payload.data()), segment.payload.size()}) +
         "'";
}

// "#40" is forty bytes.
std::string payload_of(const std::string& text) {
  if (text.empty() || text[0] != '#') return text;
  std::string bytes(std::stoul(text.substr(1)), '\0');
  std::generate(bytes.begin(), bytes.end(),
                [n = 0U]() mutable { return static_cast<char>(n++ % 251); });
  return bytes;
}

std::string outcome(ssize_t result) {
  if (result >= 0) return std::to_string(result);
  return errno == EAGAIN ? "EAGAIN" : errno == EPIPE ? "EPIPE" : "EINVAL";
}

// A client whose every segment is scripted, and the proxy behind the flow.
class Client {
 public:
  explicit Client(std::uint8_t version = ip_v4, std::uint16_t port = 40000,
                  std::uint16_t to_port = 443)
      : route{version, {10, 5, 5, 1}, {192, 0, 2, 7}, htons(port), htons(to_port)} {}

  // One step: "S", "A", "F", "R", "P text", "FP text" are segments, with "@n" n bytes
  // from where the client is, which then stays there; "window", "ack" and "seq" set
  // its numbers; with "+" it is handled together with the next one; "w text" writes, "r" reads, "c"
  // closes. Gives the result of a call, then what was sent, then in angles what the proxy was told.
  std::string step(const std::string& action) {
    told.clear();
    const std::size_t blank = std::min(action.find(' '), action.size());
    const std::string verb = action.substr(0, blank);
    const std::string rest = action.substr(std::min(blank + 1, action.size()));
    std::string result = perform(verb, rest);
    const auto add = [&result](const std::string& text) {
      result += (result.empty() ? "" : " ") + text;
    };
    while (const auto sent = device().next()) {
      add(shown(*sent));
      const std::uint8_t takes_one = TcpFlag::syn | TcpFlag::fin;
      const std::uint32_t end = sent->segment.sequence + size32(sent->segment.payload.size()) +
                                ((sent->segment.flags & takes_one) != 0 ? 1 : 0);
      expected = std::max(expected, end);
    }
    if (!told.empty()) add("<" + told + ">");
    return result;
  }
  void open() {
    step("S");
    step("A");
  }

  Route route;
  std::uint32_t sequence = client_isn + 1;
  std::uint32_t expected = 0;
  std::uint16_t window = 65535;

 private:
  std::string perform(const std::string& verb, const std::string& rest) {
    if (verb == "window") return window = static_cast<std::uint16_t>(std::stoul(rest)), "";
    if (verb == "ack") return expected = size32(std::stoul(rest)), "";
    if (verb == "seq") return sequence = client_isn + size32(std::stoul(rest)), "";
    if (verb == "w") return outcome(tun_flow_write(*flow, payload_of(rest)));
    if (verb == "c") return tun_flow_close(*flow), "";
    if (verb[0] == '+') return send(verb.substr(1), payload_of(rest)), "";
    if (verb != "r") return send(verb, payload_of(rest)), device().pump(), "";
    std::string text(300000, '\0');
    const ssize_t count = tun_flow_read(*flow, text);
    return count > 0 ? shown(text.substr(0, static_cast<std::size_t>(count))) : outcome(count);
  }

  void send(const std::string& verb, const std::string& payload) {
    const std::size_t at = verb.find('@');
    const std::string letters = verb.substr(0, at);
    std::uint8_t flags = letters == "S" ? 0 : TcpFlag::ack;
    for (const char letter : letters) flags |= flag_of(letter);
    const bool moves = at == std::string::npos && letters != "S";
    std::uint32_t from = letters == "S" ? client_isn : sequence;
    if (at != std::string::npos) from += size32(std::stoul(verb.substr(at + 1)));
    device().put(route, {from, expected, flags, window, {}}, payload);
    if (moves) sequence += size32(payload.size()) + (flags & TcpFlag::fin);
  }
};

class TunFlowTest : public testing::Test {
 protected:
  TunFlowTest() {
    (void)device();
    event::tun_options.tcp_rmax = event::tun_options.tcp_wmax = 196608;
    on_flow = nullptr;
  }
  ~TunFlowTest() override {
    on_flow = nullptr;
    reset_clients();
    EXPECT_EQ(tun_flow_count(), 0U);
    EXPECT_EQ(tun_unfinished_flows(), 0U);
  }
  static void reset_clients() {
    for (const std::uint8_t version : versions) {
      for (std::uint16_t port = 40000; port < 40005; ++port) Client(version, port).step("R");
    }
  }
};

struct Script {
  const char* why;
  std::string steps;      // "action = result; action; ..."
  std::size_t flows = 1;  // that are left
  std::int32_t limit = 196608;
};

enum class Flow : std::uint8_t { none, open };

void run(Flow flow_at_first, const std::vector<Script>& scripts) {
  for (std::size_t i = 0; i < 2 * scripts.size(); ++i) {
    const Script& script = scripts[i / 2];
    event::tun_options.tcp_rmax = event::tun_options.tcp_wmax = script.limit;
    Client client(versions[i % 2]);
    if (flow_at_first == Flow::open) client.open();
    for (std::size_t at = 0; at < script.steps.size();) {
      const std::size_t end = std::min(script.steps.find("; ", at), script.steps.size());
      const std::string step = script.steps.substr(at, end - at);
      const std::size_t sign = std::min(step.find(" = "), step.size());
      const std::string result = sign == step.size() ? "" : step.substr(sign + 3);
      EXPECT_EQ(client.step(step.substr(0, sign)), result) << script.why << ": " << step;
      at = end + 2;
    }
    EXPECT_EQ(tun_flow_count(), script.flows) << script.why;
    client.step("R");
  }
}

TEST_F(TunFlowTest, Opening) {
  run(Flow::none,
      {
          {"a handshake, during which a write waits",
           "S = SA 0 1 mss <1>; w early = EAGAIN; r = EINVAL; S; A = <3>; w x = 1 PA 1 1 'x'"},
          {"data complete it when they acknowledge",
           "S = SA 0 1 mss <1>; ack 0; P@0 x = A 1 1; ack 1; P hello = A 1 6 <2>"},
          {"a close is kept until then", "S = SA 0 1 mss <1>; c; A = FA 1 1"},
          {"no flow, no answer but a reset", "A = RA; R = RA", 0},
      });
}

TEST_F(TunFlowTest, OneFlowForAClientPort) {
  Client().open();
  EXPECT_EQ(Client(ip_v4, 40000, 80).step("S"), "") << "another destination is no other flow";
  Client(ip_v6).step("S");
  Client(ip_v4, 40001).step("S");
  EXPECT_EQ(tun_flow_count(), 3U);
}

TEST_F(TunFlowTest, Data) {
  run(Flow::open,
      {
          {"one segment is outstanding",
           "window 4; A; w abcdefghij = 10 PA 1 1 'abcd'; ack 1; P crossing = A 5 9 <2>; ack 3; "
           "A; ack 5; window 0; A; window 100; P back = A 5 13 PA 5 13 'efghij' <2>; r = "
           "crossingback"},
          {"a full buffer is told when there is room",
           "window 0; A; w #150 = 100; w b = EAGAIN; r = EAGAIN; window 60; A = PA 1 1 w100 '#60' "
           "<3>; "
           "w #80 = 60",
           1, 100},
          {"so is what a write had to leave",
           "window 0; A; w #150 = 100; window 60; A = PA 1 1 w100 '#60' <3>", 1, 100},
          {"only the byte that is due is taken, and what there is room for",
           "P abc = A 1 4 w97 <2>; P@-3 abc = A 1 4 w97; P@-2 bcdef = A 1 7 w94 <2>; seq 7; P@1 "
           "zzz = A 1 7 w94; P@1073741824 zzz = A 1 7 w94; P@-1073741824 zzz = A 1 7 w94; P@0 "
           "#200 = A 1 101 w0 <2>; seq 101; P@0 h = A 1 101 w0; r = #100 A 1 101 w100; P more = "
           "A 1 105 w96 <2>; r = more; A@-1 = A 1 105 w100",  // a keep-alive
           1, 100},
          {"segments of one pass go on together, and in order with the end",
           "+P abc; +P def; +A; P ghi = A 1 4 A 1 7 A 1 10 <22>; +P jk; F = A 1 12 A 1 13 <22>; r "
           "= "
           "abcdefghijk; r = 0"},
          {"a FIN with payload counts when it is repeated",
           "FP@0; FP last = A 1 5 <2>; r = last; r = EAGAIN; FP@-1 = A 1 6 <2>; r = 0"},
      });
}

TEST_F(TunFlowTest, HowItEnds) {
  run(Flow::open,
      {
          {"the client first", "F = A 1 2 <2>; r = 0; c = FA 1 2; A", 0},
          {"the proxy first, nothing outstanding", "c = FA 1 1; A; r = 0; F = A 2 2", 0},
          {"both at once", "c = FA 1 1; ack 1; F = A 2 2", 0},
          {"data are acknowledged before our FIN",
           "w data = 4 PA 1 1 'data'; c; A = FA 5 1; F = A 6 2", 0},
          {"the client's FIN lets ours go",
           "w data = 4 PA 1 1 'data'; ack 1; F = A 5 2 <2>; c = FA 5 2; A", 0},
          {"data that wait go out first",
           "w one = 3 PA 1 1 'one'; w two = 3; c; r = 0; A = PA 4 1 'two'; A = FA 7 1; F = A 8 2",
           0},
          {"behind the client's FIN too",
           "w one = 3 PA 1 1 'one'; w two = 3; F = A 4 2 PA 4 2 'two' <2>; c = FA 7 2; A", 0},
          {"a reset frees at once", "w data = 4 PA 1 1 'data'; R = <2>", 0},
          {"what comes after the close is acknowledged, not kept",
           "c = FA 1 1; P late = A 2 5; F = A 2 6", 0},
          {"a FIN that is repeated", "F = A 1 2 <2>; F@-1 = A 1 2"},
          {"no FIN twice", "c = FA 1 1; c; A; A"},
      });
}

TEST_F(TunFlowTest, SegmentsFitTheLengthField) {
  for (const std::uint8_t version : versions) {
    Client client(version);
    client.open();
    EXPECT_EQ(client.step("w #70000"),
              version == ip_v4 ? "70000 PA 1 1 '#65495'" : "70000 PA 1 1 '#65515'");
  }
}

TEST_F(TunFlowTest, LargeSegmentsThatAreSummedUpAhead) {
  Client client;
  client.open();
  EXPECT_EQ(client.step("w #196608"), "196608 PA 1 1 '#65495'");
  EXPECT_EQ(client.step("A"), "PA 65496 1 '#65495'");
  EXPECT_EQ(client.step("w #100000"), "100000");
  EXPECT_EQ(client.step("A"), "PA 130991 1 '#65495'");
  client.step("window 30001");
  EXPECT_EQ(client.step("A"), "PA 196486 1 '#30001'");
  client.step("window 65535");
  EXPECT_EQ(client.step("A"), "PA 226487 1 '#65495'");
  EXPECT_EQ(client.step("A"), "PA 291982 1 '#4627'");
}

// What is due may stand at the very end of the first packet.
TEST_F(TunFlowTest, GatheringBeginsAnywhereInAPacket) {
  Client client;
  client.open();
  EXPECT_EQ(client.step("P #65000"), "A 1 65001 <2>");
  EXPECT_EQ(client.step("r"), "#65000");
  client.step("+P@-64499 #65400");
  client.sequence += 901;
  for (const char* more : {"+P #65000", "+P #32000", "+P #16000", "+P #8000", "+P #60000"}) {
    client.step(more);
  }
  EXPECT_EQ(client.step("A"),
            "A 1 65902 A 1 130902 A 1 162902 A 1 178902 A 1 186902 A 1 246902 w14707 <22>");
}

TEST_F(TunFlowTest, OtherCombinationsAreIgnored) {
  Client client;
  client.open();
  for (unsigned flags = 0; flags < 64; ++flags) {
    if (flags == 0x10 || flags == 0x11 || flags == 0x14) continue;
    device().put(client.route, {.sequence = client.sequence,
                                .acknowledgement = client.expected,
                                .flags = static_cast<std::uint8_t>(flags),
                                .mss = {}});
  }
  device().pump();
  EXPECT_EQ(client.step("seq 1"), "");
  EXPECT_EQ(tun_flow_count(), 1U);
}

TEST_F(TunFlowTest, AResetIsToldBeforeTheFlowGoes) {
  Client client;
  client.open();
  client.step("P unread");
  std::string reads;
  on_flow = [&](TunFlow& at) {
    reads = client.step("r");
    reads += " " + client.step("r");
    tun_flow_close(at);
  };
  client.step("R");
  EXPECT_EQ(reads, "unread EPIPE");
  EXPECT_EQ(tun_flow_count(), 0U);
}

// ---- what is given back ---------------------------------------------------------------

TEST_F(TunFlowTest, SilentFlowsAreFreed) {
  Client half_open(ip_v4, 40001), closed(ip_v4, 40002), gone(ip_v4, 40003), open(ip_v4, 40004);
  half_open.step("S");
  const auto due_ms = tun_next_expiry_ms();
  ASSERT_TRUE(due_ms);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ(half_open.step("S@0"), "");
  closed.open();
  closed.step("w one");
  closed.step("w two");
  closed.step("c");
  EXPECT_EQ(tun_unfinished_flows(), 1U);
  gone.open();
  gone.step("w data");  // never acknowledged
  open.open();
  open.step("w data");
  open.step("A");
  EXPECT_EQ(tun_next_expiry_ms(), due_ms) << "the SYN of another connection is no sign of life";
  const std::int64_t now = monotonic_ms();
  tun_expire_flows(now + 299'000);
  EXPECT_EQ(tun_flow_count(), 4U);
  told.clear();
  tun_expire_flows(now + 301'000);
  EXPECT_EQ(told, "222");
  EXPECT_EQ(open.step("seq 1"), "RA") << "whose data are dropped is reset";
  EXPECT_EQ(tun_flow_count(), 1U);
  EXPECT_FALSE(tun_next_expiry_ms());
}

Route route_of_client(unsigned i) {
  return {ip_v4,
          {10, 6, static_cast<std::uint8_t>(i >> 15)},
          {192, 0, 2, 7},
          htons(static_cast<std::uint16_t>(i & 0x7fff)),
          0};
}

TEST_F(TunFlowTest, FloodsHaveALimit) {
  for (unsigned i = 0; i < 70000; ++i) {
    device().put(route_of_client(i), {.flags = TcpFlag::syn, .mss = {}});
    device().pump();
    (void)device().next();
  }
  EXPECT_EQ(tun_flow_count(), 65536U);
  tun_expire_flows(monotonic_ms() + 301'000);

  // Flows that the proxy is done with, and whose clients take nothing.
  for (unsigned i = 0; i < 1000; ++i) {
    Client client;
    client.route = route_of_client(i);
    client.open();
    client.step("w one");
    client.step("w two");
    client.step("c");
  }
  EXPECT_EQ(tun_unfinished_flows(), (64U << 20) / 196608) << "by the memory that they hold";
  EXPECT_EQ(tun_flow_count(), tun_unfinished_flows());
  tun_expire_flows(monotonic_ms() + 301'000);
  while (device().next()) {
  }
}

// ---- a link that loses, repeats and reorders --------------------------------------------

char upload_byte(std::size_t at) { return static_cast<char>('A' + at * 7 % 53); }
char download_byte(std::size_t at) { return static_cast<char>('a' + at * 11 % 47); }

// A TCP client that repeats what is not acknowledged, and the proxy's end of it. Its
// segments may be lost, doubled or late. What the engine sends arrives.
class LossyClient {
 public:
  static constexpr std::size_t total = 60000;

  LossyClient(const Route& route, unsigned seed) : route_(route), random_(seed) {}

  void take(const TcpSegment& segment) {
    if ((segment.flags & TcpFlag::syn) != 0) {
      next_ = std::max(next_, 1U);
      return;
    }
    const std::uint32_t moved = segment.acknowledgement - (client_isn + 1);
    if (moved <= total + 1) acknowledged_ = std::max<std::size_t>(acknowledged_, moved);
    if (segment.sequence != next_) return;
    for (const std::uint8_t byte : segment.payload) {
      ASSERT_EQ(static_cast<char>(byte), download_byte(received)) << "at " << received;
      ++received;
    }
    next_ += size32(segment.payload.size()) + (segment.flags & TcpFlag::fin);
    saw_fin |= (segment.flags & TcpFlag::fin) != 0;
  }

  void offer() {
    if (next_ == 0) return queue(client_isn, TcpFlag::syn);
    const std::uint32_t due = client_isn + 1 + size32(acknowledged_);
    queue(due - 1, TcpFlag::ack);  // a keep-alive, which repeats the acknowledgement
    queue(due, TcpFlag::ack);
    std::size_t at = acknowledged_;
    for (unsigned i = 0; i < 4 && at < total; ++i) {
      std::string payload(std::min<std::size_t>(1 + random_() % 900, total - at), '\0');
      for (std::size_t k = 0; k < payload.size(); ++k) payload[k] = upload_byte(at + k);
      queue(client_isn + 1 + size32(at), TcpFlag::psh | TcpFlag::ack, payload);
      at += payload.size();
    }
    if (at == total) queue(client_isn + 1 + size32(total), TcpFlag::fin | TcpFlag::ack);
  }

  // What is under way goes to the device.
  void carry() {
    std::vector<Packet> now;
    now.swap(link_);
    if (chance(30)) std::shuffle(now.begin(), now.end(), random_);
    for (const Packet& packet : now) {
      if (chance(20)) continue;
      if (chance(15)) link_.push_back(packet);
      device().put(route_, packet.fields, packet.payload);
    }
  }

  void serve(TunFlow& at) {
    std::string buffer(1 + random_() % 3000, '\0');
    const ssize_t got = tun_flow_read(at, buffer);
    for (ssize_t i = 0; i < got; ++i, ++read) {
      ASSERT_EQ(buffer[static_cast<std::size_t>(i)], upload_byte(read));
    }
    if (written_ < total) {
      std::string text(std::min<std::size_t>(1 + random_() % 2000, total - written_), '\0');
      for (std::size_t k = 0; k < text.size(); ++k) text[k] = download_byte(written_ + k);
      written_ += static_cast<std::size_t>(std::max<ssize_t>(0, tun_flow_write(at, text)));
    } else if (got == 0) {
      tun_flow_close(at);
      proxy = nullptr;
    }
  }

  TunFlow* proxy = nullptr;
  std::size_t read = 0;      // of the upload
  std::size_t received = 0;  // of the download
  bool saw_fin = false;

 private:
  struct Packet {
    TcpFields fields;
    std::string payload;
  };

  bool chance(unsigned percent) { return random_() % 100 < percent; }

  void queue(std::uint32_t sequence, unsigned flags, std::string payload = {}) {
    TcpFields fields{.sequence = sequence,
                     .acknowledgement = next_,
                     .flags = static_cast<std::uint8_t>(flags),
                     .window = static_cast<std::uint16_t>(500 + random_() % 3000),
                     .mss = {}};
    if (chance(5)) fields.mss = 1000;  // a longer header
    link_.push_back({fields, std::move(payload)});
  }

  Route route_;
  std::minstd_rand random_;
  std::vector<Packet> link_;
  std::uint32_t next_ = 0;  // of the engine's bytes
  std::size_t acknowledged_ = 0;
  std::size_t written_ = 0;
};

TEST_F(TunFlowTest, NoByteIsLostOrDoubledOnALossyLink) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    event::tun_options.tcp_rmax = seed % 2 == 0 ? 2000 : 196608;
    event::tun_options.tcp_wmax = seed % 3 == 0 ? 1500 : 196608;
    std::minstd_rand random(seed);
    std::vector<LossyClient> clients;
    for (std::uint16_t i = 0; i < 3; ++i) {
      const auto port = static_cast<std::uint16_t>(40000 + i);
      clients.emplace_back(Client(versions[i % 2], port).route, seed * 3 + i);
    }
    const auto client_at = [&](std::uint16_t port_be) -> LossyClient& {
      return clients[static_cast<std::size_t>(ntohs(port_be) - 40000)];
    };
    on_flow = [&](TunFlow& at) {
      LossyClient& client = client_at(at.to_client.destination_port_be);
      if (at.is_in(syn_received)) client.proxy = &at;
      if (client.proxy != nullptr && random() % 2 == 0) client.serve(at);
    };
    for (int step = 0; step < 20000; ++step) {
      if (std::ranges::all_of(clients, &LossyClient::saw_fin)) break;
      while (const auto sent = device().next()) {
        if ((sent->segment.flags & TcpFlag::rst) != 0) continue;
        client_at(sent->segment.destination_port_be).take(sent->segment);
      }
      for (LossyClient& client : clients) {
        client.offer();
        client.carry();
      }
      device().pump();
      for (LossyClient& client : clients) {
        if (client.proxy != nullptr) client.serve(*client.proxy);
      }
      if (HasFatalFailure()) return;
    }
    on_flow = nullptr;
    for (const LossyClient& client : clients) {
      EXPECT_EQ(client.read, LossyClient::total);
      EXPECT_EQ(client.received, LossyClient::total);
    }
    reset_clients();
  }
}

}  // namespace
}  // namespace vrox::tun
