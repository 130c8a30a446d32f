// Short connections: connect, one request, one reply, close.
#include "client.h"

namespace load {
namespace {

class Rate : public Client {
 public:
  using Client::Client;

 protected:
  bool opened(Conn& conn) override {
    if (result_.done == 0 && !running_) {
      running_ = true;
      start_clock();
    }
    return request(conn, Operation::reply);
  }

  bool ready(Conn& conn) override {
    const Answer answer = read_answer(conn, sizeof(Request));
    if (answer != Answer::whole) return answer == Answer::partial;
    close(conn);
    if (++result_.done >= options_.count) stop_ = true;
    if (!stop_) open(conn);
    return true;
  }

  // One that fails is one of many; the caller judges how many are too many.
  void failed(Conn& conn) override {
    close(conn);
    if (result_.errors > 64) stop_ = true;
    if (!stop_) open(conn);
  }

 private:
  bool running_ = false;
};

}  // namespace

Result load_rate(const Options& options) { return Rate(options).run(); }

}  // namespace load
