// Recognising HTTP requests and reading their heads. Everything here looks at
// foreign bytes as views and keeps none of them.
//
// A head is said to end three bytes behind the line feed of its first "\n\r":
// that is its empty line when lines end in CR LF.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "main/address.h"
#include "main/buffer.h"

namespace vrox::httpmod {

struct Method {
  std::string_view name;
  std::uint32_t code;  // one bit
};

// In the order in which they are tested; HEAD came late, which its code shows.
constexpr std::array<Method, 14> methods{{{"GET", 1},
                                          {"POST", 2},
                                          {"CONNECT", 4},
                                          {"HEAD", 8192},
                                          {"PUT", 8},
                                          {"OPTIONS", 16},
                                          {"MOVE", 32},
                                          {"COPY", 64},
                                          {"TRACE", 128},
                                          {"DELETE", 256},
                                          {"LINK", 512},
                                          {"UNLINK", 1024},
                                          {"PATCH", 2048},
                                          {"WRAPPED", 4096}}};
constexpr std::uint32_t method_connect = 4;
constexpr std::uint32_t not_http = 16384;

// The code of the method with whose name `text` begins, with case: "GETAWAY" is
// a GET, "get" is not_http.
[[nodiscard]] std::uint32_t method_code(std::string_view text);

// How far the bytes gathered from one client have been looked at; zeroed
// whenever gathering starts anew. It keeps slow senders from costing a search
// of all they sent before for every byte.
struct HeadScan {
  std::size_t head = 0;      // start of the last head, behind complete ones
  std::size_t searched = 0;  // no end of that head lies before here
};

// Whether the gathered bytes can be handed on: they are not HTTP, or hold whole
// heads only, or something that is not HTTP (a body) follows a head.
[[nodiscard]] bool request_complete(std::string_view gathered, HeadScan& scan);

// The position behind the head, at most the size; empty when no head ends here.
[[nodiscard]] std::optional<std::size_t> find_head_end(std::string_view request);

// The line's last nine bytes stand for " HTTP/1.1" and are never looked at.
struct RequestLine {
  std::string_view method;   // before the first blank
  std::string_view url;      // the target as written; empty when shorter than nine bytes
  std::string_view version;  // the eight bytes before the carriage return
};
// Empty when the text has no blank or no carriage return behind it.
[[nodiscard]] std::optional<RequestLine> parse_request_line(std::string_view head);

// What rules are matched against.
struct RequestTarget {
  std::string_view url;      // the target as written
  std::string_view uri;      // its path, without scheme and authority
  std::size_t head_end = 0;  // position behind the head
};
// Empty without the end of a head, or without a blank in the first line.
[[nodiscard]] std::optional<RequestTarget> parse_target(std::string_view request);

// A target's part from the first '/' behind "//" on, "/" when there is none.
[[nodiscard]] std::string_view path_behind_authority(std::string_view url);

// The line behind the line feed at or behind `from`, without its own line feed.
struct Line {
  std::size_t start = 0;
  std::size_t end = 0;   // of its bytes
  std::size_t next = 0;  // behind its line feed, if it has one
  [[nodiscard]] std::string_view in(std::string_view text) const {
    return text.substr(start, end - start);
  }
};
[[nodiscard]] Line line_at(std::string_view text, std::size_t start);

// Whether the line is `name`, in any case, followed directly by ':'.
[[nodiscard]] bool is_header(std::string_view line, std::string_view name);

// The host that the request asks for: what stands between the blanks of a
// CONNECT, else the first Host header. Empty when there is none.
[[nodiscard]] std::optional<std::string_view> find_request_host(std::string_view head);

// Sets `text` to "a.b.c.d:port" or "[v6]:port"; in the second form the bracket
// takes the place of the address's first digit, intended. False when memory is short.
[[nodiscard]] bool format_address(const SocketAddress& address, Buffer& text);

}  // namespace vrox::httpmod
