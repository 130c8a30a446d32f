#include "dns/question.h"

#include <algorithm>

#include "main/byte_reader.h"

namespace vrox::dns {

namespace {

constexpr std::size_t header_size = 12;
constexpr std::size_t max_label = 63;
constexpr unsigned response_bit = 0x80;

// Two servers that took each other's answers for queries would never stop.
bool is_response(std::span<const std::uint8_t> header) { return (header[2] & response_bit) != 0; }

// One label behind what is there already. The name ends for the pattern matcher
// at its first zero byte, so that one inside a label would dodge the rules.
bool append_label(std::span<const std::uint8_t> label, Question& question) {
  const std::size_t dot = question.dotted_length == 0 ? 0 : 1;
  if (question.dotted_length + dot + label.size() > max_dotted_name) return false;
  if (std::ranges::find(label, 0) != label.end()) return false;
  if (dot != 0) question.dotted[question.dotted_length++] = '.';
  for (const std::uint8_t byte : label) {
    question.dotted[question.dotted_length++] = static_cast<char>(byte);
  }
  return true;
}

bool read_name(ByteReader& in, Question& question) {
  while (const std::size_t length = in.u8()) {
    if (length > max_label) return false;
    const auto label = in.take(length);
    if (!in.ok() || !append_label(label, question)) return false;
  }
  return in.ok() && question.dotted_length != 0;
}

}  // namespace

std::optional<Question> read_question(std::span<const std::uint8_t> message) {
  ByteReader in(message);
  const auto header = in.take(header_size);
  if (!in.ok() || is_response(header)) return std::nullopt;
  Question question;
  if (!read_name(in, question)) return std::nullopt;
  question.type = in.be16();
  in.take(2);  // class
  if (!in.ok() || question.type == 0) return std::nullopt;
  question.bytes = message.subspan(header_size, message.size() - header_size - in.left());
  return question;
}

}  // namespace vrox::dns
