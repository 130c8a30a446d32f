// A session as the rules see it.
#pragma once

#include "acl/match.h"
#include "tcp/session.h"

namespace vrox::tcp {

[[nodiscard]] inline acl::Subject subject_of(const TcpSession& session) {
  return {.client = session.client_addr.uniform(),
          .destination = session.original_dst.uniform(),
          .port = session.original_dst.port(),
          .has_upstream = session.upstream.fd >= 0,
          .method = session.method,
          .request = session.request_buf.view()};
}

}  // namespace vrox::tcp
