// The engine that applies an httpMod module to requests.
#pragma once

#include <cstdint>
#include <string_view>

#include "httpmod/cipher.h"
#include "httpmod/module.h"
#include "main/address.h"
#include "main/buffer.h"

namespace vrox::httpmod {

// What the engine needs to know of the session that a request came by.
struct RequestView {
  Buffer& request;  // replaced by the result
  std::uint32_t method = 0;
  const SocketAddress& destination;  // where the client wanted to go
  std::uint8_t running_key = 0;      // of the direction to the upstream; not advanced
  std::uint16_t listen_port = 0;     // of `tcp_listen`
};

// Rewrites the request, or with `modify_all_request` each of the requests behind
// one another. With a key that is on, the host put into a CONNECT is enciphered.
// False when a request line is malformed, memory is short or a text grows beyond
// the limit: the request is unchanged then and must not be sent.
[[nodiscard]] bool modify_request(const RequestView& view, HttpModModule& module, TunnelKey key);

// The same for a request that no session brought, such as a template. False as
// above, or when the request or the result is empty.
[[nodiscard]] bool modify_request_text(Buffer& request, HttpModModule& module);

// What the placeholders stand for.
struct RequestParts {
  std::string_view method;     // [M]
  std::string_view path;       // [U]
  std::string_view url;        // [url]
  std::string_view version;    // [V]
  std::string_view host;       // [H]
  std::string_view host_port;  // [H_P]
};

// Puts captured values in the place of their tokens, newest directive first.
// False when memory is short or the text grows beyond the limit.
[[nodiscard]] bool put_saved_values(Buffer& text, const List<SavedValue>& saved_values);

// The saved values, then the parts in the order of the record. Text that was put
// in is seen by the steps behind it: a url may bring a "[H]". False as above.
[[nodiscard]] bool expand_placeholders(Buffer& text, const RequestParts& parts,
                                       const List<SavedValue>& saved_values);

}  // namespace vrox::httpmod
