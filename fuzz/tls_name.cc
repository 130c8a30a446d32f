// The server name of a TLS client, in whatever else begins like a record.
#include <cstdint>
#include <string>
#include <string_view>

#include "acl/match.h"
#include "check.h"

using vrox::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string record(data,
                           data + size);  // its own block, so that no read passes its end unseen
  const std::string_view name = vrox::acl::tls_server_name(record);
  if (!name.empty()) {
    check(name.data() > record.data() &&
          name.data() + name.size() <= record.data() + record.size());
  }
  // More bytes never make a whole record incomplete, and a cut one stays so.
  bool incomplete = true;
  for (std::size_t length = 1; length <= size; ++length) {
    const bool now =
        vrox::acl::is_incomplete_client_hello(std::string_view(record).substr(0, length));
    check(incomplete || !now);
    incomplete = now;
  }
  return 0;
}
