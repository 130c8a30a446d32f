#include "httpudp/request.h"

#include <algorithm>
#include <array>
#include <utility>

#include "httpmod/modify.h"
#include "main/helpers.h"
#include "tcp/module.h"

namespace vrox::httpudp {

namespace {

constexpr std::string_view type_header = "\nZeltProxyType: ";
constexpr std::string_view our_type = "httpUDP";

// The value of the request's own header gives way wherever it stands in the
// request, intended: templates repeat it in other lines.
bool put_type(Buffer& text) {
  const std::size_t at = text.view().find(type_header);
  if (at == std::string_view::npos) {
    return replace_all(text, "\n\r", "\nZeltProxyType: httpUDP\r\n\r");
  }
  const std::string_view rest = text.view().substr(at + type_header.size());
  Buffer value;
  return value.assign(rest.substr(0, rest.find_first_of("\r\n"))) &&
         replace_all(text, value.view(), our_type);
}

// In this order: what a placeholder stands for may bring a later one.
bool put_parts(Buffer& text, std::string_view host) {
  const std::array<std::pair<std::string_view, std::string_view>, 5> parts{{
      {"[V]", "HTTP/1.1"},
      {"[H]", host.empty() ? "[H]" : host},
      {"[M]", "CONNECT"},
      {"[url]", "/"},
      {"[U]", "/"},
  }};
  return std::all_of(parts.begin(), parts.end(), [&text](const auto& part) {
    return replace_all(text, part.first, part.second);
  });
}

}  // namespace

TunnelRequest::Result TunnelRequest::build(const RequestSource& source) {
  Buffer text;
  if (!text.assign(source.header.empty() ? tcp::connect_template : source.header) ||
      !put_type(text) || !put_parts(text, source.host)) {
    return Result::no_memory;
  }
  if (source.module != nullptr) {
    if (!httpmod::modify_request_text(text, *source.module)) return Result::failed;
    // Taken behind the rewriting: that may capture the request's own header values.
    revision_ = source.module->revision;
  }
  source_ = source;
  text_ = std::move(text);
  return Result::done;
}

bool TunnelRequest::copy_to(Buffer& request) {
  if (source_.module != nullptr && source_.module->revision != revision_ &&
      build(source_) != Result::done) {
    return false;
  }
  return request.assign(text_.view());
}

}  // namespace vrox::httpudp
