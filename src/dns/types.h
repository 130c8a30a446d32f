// The query types that a rule can name (`query_type`).
#pragma once

#include <cstdint>
#include <string_view>

namespace vrox::dns {

// The number of a query type, without regard to case; 0 for an unknown name.
[[nodiscard]] std::uint16_t dns_type_from_name(std::string_view name);

}  // namespace vrox::dns
