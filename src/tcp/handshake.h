// The client's part of the handshakes with upstream proxies: SOCKS5 (RFC 1928,
// RFC 1929) and HTTP CONNECT (RFC 9110, section 9.3.6). They run over an Upstream
// and know nothing of who dialled it, or of what is sent through afterwards.
//
// A step tries what its state is due to do and never reads behind the reply that
// is due: payload that came with it stays in the socket. Replies may come in any
// number of pieces; what has come of an incomplete one also stays there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "main/address.h"
#include "main/buffer.h"
#include "tcp/upstream.h"

namespace vrox::tcp {

enum class Handshake : std::uint8_t {
  writable,  // try again when the socket can be written to
  readable,  // the proxy's answer is awaited
  done,
  failed,
};

// One step of the SOCKS5 client. `auth` is the RFC 1929 message to send when the
// proxy asks for it, empty when there is none; `target` is the address that the
// proxy is asked for: AF_INET6, or AF_INET with the address at the IPv4 position.
[[nodiscard]] Handshake socks5_client_step(Upstream& upstream, std::string_view auth,
                                           const SocketAddress& target);

// How much is taken at once of a proxy's answer that is no HTTP: what stands behind it
// belongs to the client, or, where only messages can follow, is not looked for so soon.
constexpr std::size_t short_answer = 512;
constexpr std::size_t long_answer = 2048;

// One step of the CONNECT client. What was sent of `request` is taken from it;
// an empty one has been sent. The proxy's status is not examined: any answer
// opens the tunnel, and the far end decides.
[[nodiscard]] Handshake tunnel_client_step(Upstream& upstream, Buffer& request,
                                           std::size_t one_read = short_answer);

}  // namespace vrox::tcp
