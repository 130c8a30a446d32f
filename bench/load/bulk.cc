// Streams without end, either way.
#include <sys/socket.h>

#include "client.h"

namespace load {
namespace {

class Bulk : public TogetherClient {
 public:
  using TogetherClient::TogetherClient;

 protected:
  bool begin(Conn& conn) override {
    if (options_.upload) epoll_.change(conn.fd, EPOLLOUT, &conn);
    return request(conn, options_.upload ? Operation::upload : Operation::download);
  }

  bool ready(Conn& conn) override {
    const ssize_t count = options_.upload
                              ? send(conn.fd, chunk_.data(), chunk_.size(), MSG_NOSIGNAL)
                              : recv(conn.fd, chunk_.data(), chunk_.size(), MSG_TRUNC);
    if (count <= 0) return not_now(count);
    result_.bytes += static_cast<std::uint64_t>(count);
    return true;
  }

 private:
  std::vector<char> chunk_ = std::vector<char>(chunk_size);
};

}  // namespace

Result load_bulk(const Options& options) {
  const std::uint64_t before = options.upload ? *options.uploaded : 0;
  Result result = Bulk(options).run();
  // What was sent may still be on its way; what counts has arrived.
  if (options.upload) result.bytes = *options.uploaded - before;
  return result;
}

}  // namespace load
