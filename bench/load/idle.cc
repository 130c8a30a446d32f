// Connections that have moved one message each way and then rest. They open a few
// at a time: a proxy with a short accept queue is not what is measured here.
#include <algorithm>

#include "client.h"

namespace load {
namespace {

constexpr std::size_t at_a_time = 64;

class Idle : public Client {
 public:
  explicit Idle(const Options& options) : Client(options) {
    open_at_first_ = next_ = std::min(options.conns, at_a_time);
  }

 protected:
  bool opened(Conn& conn) override { return request(conn, Operation::echo); }

  bool ready(Conn& conn) override {
    const Answer answer = read_answer(conn, sizeof(Request));
    if (answer != Answer::whole) return answer == Answer::partial;
    epoll_.change(conn.fd, 0, &conn);
    if (++result_.done == conns_.size()) stop_ = true;
    if (next_ < conns_.size()) open(conns_[next_++]);
    return true;
  }

 private:
  std::size_t next_ = 0;
};

}  // namespace

Result load_idle(const Options& options) { return Idle(options).run(); }

}  // namespace load
