// The server name of a TLS client, found without being a TLS implementation.
//
// A name is recognised by what surrounds it in the server_name extension
// (RFC 6066): the high byte of its length, always 0 for a host name, the low
// byte, the name, and a 0 byte, with which nearly every extension that can follow
// begins. That works on any record, whole or not, and whatever stands before the
// name. Clients that put another extension behind the name, or none, are served
// by walking the ClientHello (RFC 8446, section 4.1.2) instead.
#include <cstdint>
#include <span>

#include "acl/match.h"
#include "main/byte_reader.h"

namespace vrox::acl {

namespace {

constexpr std::uint8_t record_handshake = 22;
constexpr std::uint8_t client_hello = 1;
constexpr std::uint16_t extension_server_name = 0;
constexpr std::size_t record_header = 5;
constexpr std::size_t hello_random = 32;

std::uint8_t byte_at(std::string_view text, std::size_t at) {
  return static_cast<std::uint8_t>(text[at]);
}

// Whether a name can start at `start`: its length stands before it and a 0 byte
// behind it.
bool name_starts_at(std::string_view record, std::size_t start) {
  const std::size_t end = start + byte_at(record, start - 1);
  return end < record.size() && record[start - 2] == 0 && record[end] == 0;
}

// The candidate nearest before the first '.' that has one. Of the candidates
// seen so far only the last can be the nearest, so one pass is enough.
std::string_view scan_for_name(std::string_view record) {
  std::size_t nearest = 0;
  for (std::size_t at = 3; at < record.size(); ++at) {
    if (name_starts_at(record, at)) nearest = at;
    if (record[at] == '.' && nearest != 0) {
      const std::string_view name = record.substr(nearest);
      return name.substr(0, name.find('\0'));
    }
  }
  return {};
}

std::string_view name_of_extension(std::span<const std::uint8_t> extension) {
  ByteReader in(extension);
  in.take(2);  // length of the list, of which the first entry counts
  const bool is_host = in.u8() == 0;
  const auto name = in.take(in.be16());
  if (!in.ok() || !is_host) return {};
  return {reinterpret_cast<const char*>(name.data()), name.size()};
}

std::string_view walk_client_hello(std::string_view record) {
  ByteReader in({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
  if (in.u8() != record_handshake) return {};
  in.take(record_header - 1);
  if (in.u8() != client_hello) return {};
  in.take(3 + 2 + hello_random);  // length, version
  in.take(in.u8());               // session identifier
  in.take(in.be16());             // cipher suites
  in.take(in.u8());               // compression methods
  in.take(2);                     // length of the extensions: they end with the record
  while (in.left() > 0) {
    const std::uint16_t type = in.be16();
    const auto body = in.take(in.be16());
    if (!in.ok()) break;
    if (type == extension_server_name) return name_of_extension(body);
  }
  return {};
}

}  // namespace

std::string_view tls_server_name(std::string_view record) {
  const std::string_view name = scan_for_name(record);
  return name.empty() ? walk_client_hello(record) : name;
}

bool is_incomplete_client_hello(std::string_view data) {
  if (data.empty() || byte_at(data, 0) != record_handshake) return false;
  if (data.size() > 1 && byte_at(data, 1) != 3) return false;
  if (data.size() > record_header && byte_at(data, record_header) != client_hello) return false;
  if (data.size() <= record_header) return true;
  const std::size_t length = std::size_t{byte_at(data, 3)} << 8 | byte_at(data, 4);
  return data.size() < record_header + length;
}

}  // namespace vrox::acl
