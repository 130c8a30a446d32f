// What is known of the input of one side's socket.
//
// Edges are told once, so an edge is kept as a mark until a read finds nothing: a
// read that brings less than it asked for has emptied the socket, but only the next
// one tells whether the stream ended with those bytes. A side that sends small
// messages one at a time is spared that read: it is taken for empty, and asked a
// few milliseconds later unless the next edge came first. Bytes that arrive
// meanwhile bring an edge, as does an end that comes behind them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vrox::tcp {

class Input {
 public:
  [[nodiscard]] bool readable() const { return readable_; }
  [[nodiscard]] bool at_end() const { return at_end_; }

  // An event told of input. One of an end or an error as well is read to that end.
  void tell(bool ends) {
    if (ends) messages_ = 0;
    readable_ = fresh_ = true;
    taken_for_empty_ = false;
  }
  // There may be some, which no event tells.
  void suppose() { readable_ = true; }
  // What was taken for empty is to be asked.
  void ask() {
    readable_ = readable_ || taken_for_empty_;
    taken_for_empty_ = fresh_ = false;
  }

  // A read found nothing, or the end of the stream.
  void empty() { readable_ = false; }
  void end() { at_end_ = true; }

  // A read of a socket brought that many bytes. Whether it is now taken for empty;
  // it has to be asked later then.
  [[nodiscard]] bool took(std::size_t count) {
    const bool alone = fresh_ && count < small_message;
    fresh_ = false;
    taken_for_empty_ = alone && messages_ == trusted_after;
    if (taken_for_empty_) {
      readable_ = false;
    } else {
      messages_ = alone ? messages_ + 1 : 0;
    }
    return taken_for_empty_;
  }

 private:
  static constexpr std::size_t small_message = 4096;
  // Short exchanges are over by then, and their ends are not kept waiting.
  static constexpr std::uint8_t trusted_after = 16;

  bool readable_ : 1 = false;
  bool at_end_ : 1 = false;
  bool fresh_ : 1 = false;  // no read since the last event
  bool taken_for_empty_ : 1 = false;
  std::uint8_t messages_ = 0;  // small ones in a row, each the only one of its event
};

}  // namespace vrox::tcp
