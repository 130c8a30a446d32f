#include "dns/types.h"

#include <algorithm>
#include <array>

#include "main/helpers.h"

namespace vrox::dns {

namespace {

struct QueryType {
  std::string_view name;
  std::uint16_t number;
};

// MG (8) has no name here and cannot be configured; intended.
constexpr std::array query_types{
    QueryType{"A", 1},       QueryType{"NS", 2},    QueryType{"MD", 3},    QueryType{"MF", 4},
    QueryType{"CNAME", 5},   QueryType{"SOA", 6},   QueryType{"MB", 7},    QueryType{"MR", 9},
    QueryType{"NULL", 10},   QueryType{"WKS", 11},  QueryType{"PTR", 12},  QueryType{"HINFO", 13},
    QueryType{"MINFO", 14},  QueryType{"MX", 15},   QueryType{"TXT", 16},  QueryType{"AAAA", 28},
    QueryType{"UINFO", 100}, QueryType{"UID", 101}, QueryType{"GID", 102}, QueryType{"ANY", 255},
};

}  // namespace

std::uint16_t dns_type_from_name(std::string_view name) {
  const auto found =
      std::find_if(query_types.begin(), query_types.end(),
                   [name](const QueryType& type) { return equals_ignoring_case(name, type.name); });
  return found == query_types.end() ? std::uint16_t{0} : found->number;
}

}  // namespace vrox::dns
