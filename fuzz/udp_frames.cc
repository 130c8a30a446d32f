// What a far end sends through a tunnel, in pieces: each is a length byte and that
// many bytes. The first byte chooses whether it is enciphered.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "check.h"
#include "httpudp/global.h"
#include "httpudp/tunnel.h"

using vrox::fuzz::check;

namespace {

using vrox::httpudp::Bytes;

std::vector<std::string> replies;

void take_reply(const vrox::SocketAddress& from, const vrox::SocketAddress&, Bytes payload) {
  check(from.family() == AF_INET);
  replies.emplace_back(payload.begin(), payload.end());
}

// The same of the whole stream at once. False when a frame is too short.
bool split_at_once(Bytes stream, std::vector<std::string>& expected) {
  for (;;) {
    const auto frame = vrox::httpudp::first_frame(stream);
    if (frame.size == 0) return true;
    const auto header = vrox::httpudp::read_relay_header(frame.datagram);
    if (!header) return false;
    const Bytes payload = frame.datagram.subspan(header->size);
    if (header->address.family() == AF_INET) expected.emplace_back(payload.begin(), payload.end());
    stream = stream.subspan(frame.size);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  namespace udp = vrox::httpudp;
  static const auto prepared = udp::tunnels_prepare({});
  check(prepared == udp::TunnelRequest::Result::done);
  udp::global.tunnel_key = {};
  if ((data[0] & 1) != 0) udp::global.tunnel_key = {.xor_byte = 164, .step_byte = 24};
  std::array<int, 2> ends{};
  check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) == 0);
  udp::UdpClient client;
  client.origin = udp::Origin::other;
  client.peer = *vrox::parse_address("127.0.0.1", 9);
  client.reply = take_reply;
  client.upstream.fd = ends[0];
  client.upstream.state = vrox::tcp::LinkState::connected;
  client.upstream.tunnel_state = vrox::tcp::TunnelState::open;
  replies.clear();

  std::string stream;
  bool open = true;
  for (Bytes rest(data + 1, size - 1); open && !rest.empty();) {
    const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
    std::string piece(rest.begin() + 1, rest.begin() + 1 + static_cast<std::ptrdiff_t>(length));
    rest = rest.subspan(1 + length);
    if (piece.empty()) continue;
    stream += piece;
    if (udp::global.tunnel_key.on()) {
      client.send_key =
          vrox::httpmod::tunnel_encode(piece, udp::global.tunnel_key, client.send_key);
    }
    check(send(ends[1], piece.data(), piece.size(), 0) == static_cast<ssize_t>(piece.size()));
    open = udp::tunnel_advance(client, EPOLLIN);
  }
  std::vector<std::string> expected;
  const Bytes whole(reinterpret_cast<const std::uint8_t*>(stream.data()), stream.size());
  check(split_at_once(whole, expected) == open);
  check(replies == expected);
  (void)close(ends[0]);
  (void)close(ends[1]);
  return 0;
}
