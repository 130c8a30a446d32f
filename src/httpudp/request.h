// The HTTP request that opens a tunnel: built at start-up, and again when a header
// value was captured that its httpMod module puts in. The service's thread's own.
#pragma once

#include <cstdint>
#include <string_view>

#include "httpmod/module.h"
#include "main/buffer.h"

namespace vrox::httpudp {

// What the section says of the request.
struct RequestSource {
  std::string_view header;  // the template; empty: the built-in one
  std::string_view host;    // empty: "[H]" stays for the module to replace
  httpmod::HttpModModule* module = nullptr;
};

class TunnelRequest {
 public:
  enum class Result : std::uint8_t { done, no_memory, failed };

  [[nodiscard]] Result build(const RequestSource& source);

  // A copy for one tunnel, built anew if the module has changed. False when that
  // fails or memory is short.
  [[nodiscard]] bool copy_to(Buffer& request);

  [[nodiscard]] std::string_view view() const { return text_.view(); }

 private:
  RequestSource source_;
  Buffer text_;
  std::uint32_t revision_ = 0;  // of the module, when `text_` was built
};

}  // namespace vrox::httpudp
