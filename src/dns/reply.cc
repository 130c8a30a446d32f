#include "dns/reply.h"

#include <algorithm>

namespace vrox::dns {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t id_size = 2;
// Response, authoritative, recursion desired and available, no error.
constexpr std::array<std::uint8_t, 2> answer_flags{0x85, 0x80};
// Response, recursion desired and available, server failure.
constexpr std::array<std::uint8_t, 2> failure_flags{0x81, 0x82};
constexpr std::array<std::uint8_t, 8> answer_counts{0, 1, 0, 1, 0, 0, 0, 0};
constexpr std::array<std::uint8_t, 8> failure_counts{0, 1, 0, 0, 0, 0, 0, 0};

constexpr std::array<std::uint8_t, 2> question_name{0xc0, 0x0c};  // a pointer to it
constexpr std::array<std::uint8_t, 2> class_in{0, 1};
constexpr std::array<std::uint8_t, 4> time_to_live{0, 0, 3600 >> 8, 3600 & 0xff};
constexpr std::array<std::uint8_t, 2> length_of_a{0, 4};
constexpr std::array<std::uint8_t, 2> length_of_aaaa{0, 16};
constexpr std::array<std::uint8_t, 12> mapped_prefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// Question and header need 12 + 133 bytes at most, and a record 28.
static_assert(12 + max_dotted_name + 2 + 4 + 28 <= max_message);

class Writer {
 public:
  explicit Writer(ReplyBuffer& buffer) : all_(buffer), rest_(buffer) {}
  void put(Bytes bytes) {
    std::ranges::copy(bytes, rest_.begin());
    rest_ = rest_.subspan(bytes.size());
  }
  [[nodiscard]] Bytes written() const { return all_.first(all_.size() - rest_.size()); }

 private:
  std::span<std::uint8_t> all_;
  std::span<std::uint8_t> rest_;
};

}  // namespace

Bytes build_answer(ReplyBuffer& buffer, Bytes query, const Question& question,
                   const std::array<std::uint8_t, 4>& address) {
  const std::array<std::uint8_t, 2> type{static_cast<std::uint8_t>(question.type >> 8),
                                         static_cast<std::uint8_t>(question.type & 0xff)};
  Writer out(buffer);
  out.put(query.first(id_size));
  out.put(answer_flags);
  out.put(answer_counts);
  out.put(question.bytes);
  out.put(question_name);
  out.put(type);
  out.put(class_in);
  out.put(time_to_live);
  if (question.type == type_aaaa) {
    out.put(length_of_aaaa);
    out.put(mapped_prefix);
  } else {
    out.put(length_of_a);
  }
  out.put(address);
  return out.written();
}

Bytes build_failure(ReplyBuffer& buffer, Bytes query, const Question& question) {
  Writer out(buffer);
  out.put(query.first(id_size));
  out.put(failure_flags);
  out.put(failure_counts);
  out.put(question.bytes);
  return out.written();
}

}  // namespace vrox::dns
