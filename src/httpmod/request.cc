#include "httpmod/request.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "main/helpers.h"

namespace vrox::httpmod {

namespace {

constexpr std::string_view head_mark = "\n\r";  // the last line's end and the empty line
constexpr std::size_t head_tail = 3;            // from that line feed to behind the empty line
constexpr std::size_t version_tail = 9;         // " HTTP/1.1"
constexpr std::size_t version_length = 8;
constexpr std::size_t max_method = 7;

// The target that begins at `start` in a line that ends at `carriage_return`.
std::string_view target_between(std::string_view text, std::size_t start,
                                std::size_t carriage_return) {
  const std::size_t length = carriage_return - start;
  return text.substr(start, length - std::min(length, version_tail));
}

}  // namespace

std::uint32_t method_code(std::string_view text) {
  const auto found = std::find_if(methods.begin(), methods.end(), [text](const Method& method) {
    return text.starts_with(method.name);
  });
  return found == methods.end() ? not_http : found->code;
}

bool request_complete(std::string_view gathered, HeadScan& scan) {
  while (method_code(gathered.substr(scan.head)) != not_http) {
    const std::size_t mark = gathered.find(head_mark, scan.searched);
    if (mark == std::string_view::npos) {
      // The line feed may have come already, and the rest be still on its way.
      scan.searched = std::max(scan.head, gathered.size() - 1);
      return false;
    }
    scan.searched = mark;
    if (gathered.size() - mark < head_tail) return false;
    scan.head = scan.searched = mark + head_tail;
    if (scan.head == gathered.size()) return true;
  }
  return true;
}

std::optional<std::size_t> find_head_end(std::string_view request) {
  const std::size_t mark = request.find(head_mark);
  if (mark == std::string_view::npos) return std::nullopt;
  return std::min(mark + head_tail, request.size());
}

std::optional<RequestLine> parse_request_line(std::string_view head) {
  const std::size_t blank = head.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  const std::size_t carriage_return = head.find('\r', blank);
  if (carriage_return == std::string_view::npos) return std::nullopt;
  RequestLine line;
  line.method = head.substr(0, std::min(blank, max_method));
  line.url = target_between(head, blank + 1, carriage_return);
  line.version = head.substr(carriage_return - std::min(carriage_return, version_length),
                             std::min(carriage_return, version_length));
  return line;
}

std::optional<RequestTarget> parse_target(std::string_view request) {
  const auto head_end = find_head_end(request);
  if (!head_end) return std::nullopt;
  const std::size_t carriage_return = request.find('\r');
  const std::size_t blank = request.substr(0, carriage_return).find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  RequestTarget target;
  target.url = target_between(request, blank + 1, carriage_return);
  target.uri = target.url.starts_with('/') ? target.url : path_behind_authority(target.url);
  target.head_end = *head_end;
  return target;
}

std::string_view path_behind_authority(std::string_view url) {
  const std::size_t slashes = url.find("//");
  if (slashes == std::string_view::npos) return "/";
  const std::size_t path = url.find('/', slashes + 2);
  return path == std::string_view::npos ? "/" : url.substr(path);
}

Line line_at(std::string_view text, std::size_t start) {
  const std::size_t line_feed = text.find('\n', start);
  if (line_feed == std::string_view::npos) return {start, text.size(), text.size()};
  return {start, line_feed, line_feed + 1};
}

bool is_header(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line[name.size()] == ':' &&
         starts_with_ignoring_case(line, name);
}

std::optional<std::string_view> find_request_host(std::string_view head) {
  constexpr std::string_view connect = "CONNECT ";
  if (head.starts_with("CON")) {
    if (head.size() < connect.size()) return std::nullopt;
    const std::string_view host = head.substr(connect.size());
    const std::size_t blank = host.find(' ');
    if (blank == std::string_view::npos) return std::nullopt;
    return host.substr(0, blank);
  }
  for (Line line = line_at(head, 0); line.next < head.size();) {
    line = line_at(head, line.next);
    if (!is_header(line.in(head), "host")) continue;
    // The value goes on to a carriage return, even behind a bare line feed.
    std::string_view value = head.substr(line.start + std::string_view("host:").size());
    value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
    return value.substr(0, value.find('\r'));
  }
  return std::nullopt;
}

bool format_address(const SocketAddress& address, Buffer& text) {
  std::array<char, INET6_ADDRSTRLEN + 2> host{};
  if (address.family() == AF_INET6) {
    const Address bytes = address.uniform();
    if (inet_ntop(AF_INET6, bytes.data(), host.data(), INET6_ADDRSTRLEN) == nullptr) return false;
    host[0] = '[';
    host[std::string_view(host.data()).size()] = ']';
  } else {
    const auto bytes = address.ipv4();
    if (inet_ntop(AF_INET, bytes.data(), host.data(), INET6_ADDRSTRLEN) == nullptr) return false;
  }
  std::array<char, 6> port{':'};
  const auto end = std::to_chars(port.data() + 1, port.data() + port.size(), address.port()).ptr;
  return text.assign(host.data()) &&
         text.append({port.data(), static_cast<std::size_t>(end - port.data())});
}

}  // namespace vrox::httpmod
