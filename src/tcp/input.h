// What is known of the input of one side's socket.
//
// Edges are told once, so an edge is kept as a mark until a read finds nothing: a
// read that brings less than it asked for has emptied the socket, but only the next
// one tells whether the stream ended with those bytes. A side that sends small
// messages one at a time is spared that read: it is taken for empty, and asked when
// it has been silent for some milliseconds. Bytes that arrive meanwhile bring an
// edge, as does an end that comes behind them; bytes behind an urgent mark, where a
// read stops as well, are found by the asking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace vrox::tcp {

class Input {
 public:
  // A larger read may have been cut by its buffer, which is no smaller than this.
  static constexpr std::size_t small_message = 4096;

  [[nodiscard]] bool readable() const { return readable_; }
  [[nodiscard]] bool at_end() const { return at_end_; }

  // By an event, of input. One of an end or an error as well is read to that end.
  void told(bool ends) {
    if (ends) messages_ = 0;
    readable_ = fresh_ = true;
    taken_for_empty_ = false;
  }
  // There may be some, which no event tells.
  void suppose() { readable_ = true; }
  // What is still taken for empty is to be asked, unless there were messages since the
  // last time. Whether it wants this again. Where messages are so far apart that asking
  // costs what they save, each is asked again.
  [[nodiscard]] bool ask() {
    if (!taken_for_empty_) return false;
    if (std::exchange(lively_, false)) return true;
    taken_for_empty_ = false;
    readable_ = true;
    if (spared_ < worth_asking) messages_ = 0;
    spared_ = 0;
    return false;
  }

  // A read found nothing, or the end of the stream.
  void emptied() { readable_ = false; }
  void ended() { at_end_ = true; }

  // A read of a socket brought that many bytes. Whether it is now taken for empty;
  // it has to be asked later then.
  [[nodiscard]] bool took(std::size_t count) {
    const bool alone = fresh_ && count < small_message;
    fresh_ = false;
    taken_for_empty_ = alone && messages_ == trusted_after;
    if (taken_for_empty_) {
      readable_ = false;
      lively_ = true;
      if (spared_ < worth_asking) ++spared_;
    } else {
      messages_ = alone ? messages_ + 1 : 0;
    }
    return taken_for_empty_;
  }

 private:
  // Short exchanges are over by then, and their ends are not kept waiting.
  static constexpr std::uint8_t trusted_after = 16;
  // The two alarms that it takes cost some system calls, but many may share them.
  static constexpr std::uint8_t worth_asking = 4;

  bool readable_ = false;
  bool at_end_ = false;
  bool fresh_ = false;  // no read since the last event
  bool taken_for_empty_ = false;
  bool lively_ = false;        // since it was last to be asked
  std::uint8_t messages_ = 0;  // small ones in a row, each the only one of its event
  std::uint8_t spared_ = 0;    // reads, since it was last asked
};

}  // namespace vrox::tcp
