// 64 bytes there and back, again and again, on connections that stay open.
#include "client.h"

namespace load {
namespace {

class Trips : public TogetherClient {
 public:
  explicit Trips(const Options& options) : TogetherClient(options) {
    result_.trips_ns.reserve(std::size_t{1} << 20);
  }

 protected:
  bool begin(Conn& conn) override { return request(conn, Operation::echo); }

  bool ready(Conn& conn) override {
    const Answer answer = read_answer(conn, sizeof(Request));
    if (answer != Answer::whole) return answer == Answer::partial;
    result_.trips_ns.push_back(static_cast<std::uint32_t>(now_ns() - conn.sent_at_ns));
    if (++result_.done >= options_.count) stop_ = true;
    return request(conn, Operation::echo);
  }
};

}  // namespace

Result load_trips(const Options& options) { return Trips(options).run(); }

}  // namespace load
