#include "dns/message.h"

#include <algorithm>

#include "main/byte_reader.h"

namespace vrox::dns {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t header_size = 12;
constexpr std::size_t max_name = 255;  // encoded, with the root label
constexpr std::size_t max_label = 63;
constexpr int max_pointers = 127;  // in one name, which has no more labels
constexpr std::uint16_t class_in = 1;
constexpr unsigned flag_response = 0x8000;
constexpr std::uint16_t flag_recursion_desired = 0x0100;
constexpr unsigned pointer_mark = 0xc0;  // the two high bits of a length byte

// Fills a message front to back and refuses to pass its end.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> bytes) : rest_(bytes), size_(bytes.size()) {}

  void put(Bytes bytes) {
    if (bytes.size() > rest_.size()) {
      failed_ = true;
      rest_ = {};
      return;
    }
    std::ranges::copy(bytes, rest_.begin());
    rest_ = rest_.subspan(bytes.size());
  }
  void u8(std::size_t value) {
    const std::array<std::uint8_t, 1> byte{static_cast<std::uint8_t>(value)};
    put(byte);
  }
  void be16(std::uint16_t value) {
    u8(value >> 8U);
    u8(value & 0xffU);
  }

  [[nodiscard]] std::size_t written() const { return failed_ ? 0 : size_ - rest_.size(); }

 private:
  std::span<std::uint8_t> rest_;
  std::size_t size_;
  bool failed_ = false;
};

struct Header {
  std::uint16_t id = 0;
  std::uint16_t flags = 0;
  std::uint16_t questions = 0;
  std::uint16_t answers = 0;
};

Header read_header(ByteReader& in) {
  Header header;
  header.id = in.be16();
  header.flags = in.be16();
  header.questions = in.be16();
  header.answers = in.be16();
  in.take(4);  // authority and additional counts
  return header;
}

// Steps over a name and follows its pointers to the end, only to see that it is
// one. Each pointer must lead in front of the part that it stands in, as those
// of a real message do, so that none leads round in a circle.
bool skip_name(Bytes message, ByteReader& in) {
  ByteReader at = in;
  std::size_t part_start = message.size() - in.left();
  std::size_t length = 0;
  int pointers = 0;
  for (;;) {
    const std::size_t octet = at.u8();
    if (octet == 0 || !at.ok()) break;
    if ((octet & pointer_mark) == pointer_mark) {
      const std::size_t target = (octet & ~std::size_t{pointer_mark}) << 8U | at.u8();
      if (!at.ok() || target >= part_start || pointers == max_pointers) return false;
      if (pointers == 0) in = at;
      ++pointers;
      part_start = target;
      at = ByteReader(message.subspan(target));
      continue;
    }
    if (octet > max_label) return false;  // the types 01 and 10 were never used
    at.take(octet);
    length += octet + 1;
    if (length >= max_name) return false;
  }
  if (!at.ok()) return false;
  if (pointers == 0) in = at;
  return true;
}

// Shows each address of the wanted type to `visit`. The number of them, or -1
// when the message is malformed.
template <class Visit>
int for_each_address(Bytes message, std::uint16_t type, Visit visit) {
  const std::size_t address_size = type == type_a ? 4 : 16;
  ByteReader in(message);
  const Header header = read_header(in);
  if (!in.ok() || (header.flags & flag_response) == 0) return -1;
  for (unsigned i = 0; i < header.questions; ++i) {
    if (!skip_name(message, in)) return -1;
    in.take(4);  // type and class
  }
  int found = 0;
  for (unsigned i = 0; i < header.answers; ++i) {
    if (!skip_name(message, in)) return -1;
    const std::uint16_t record_type = in.be16();
    const std::uint16_t record_class = in.be16();
    in.take(4);  // time to live
    const Bytes data = in.take(in.be16());
    if (!in.ok()) return -1;
    if (record_type != type || record_class != class_in) continue;
    if (data.size() != address_size) return -1;
    ResolvedAddress address{.type = type};
    std::ranges::copy(data, address.bytes.begin());
    visit(address);
    ++found;
  }
  return in.ok() ? found : -1;
}

std::uint8_t lower(std::uint8_t byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<std::uint8_t>(byte + ('a' - 'A')) : byte;
}

// The lengths of labels are below the letters, so a question is folded whole,
// but for its type and class. Some servers answer in lower case.
bool same_question(Bytes a, Bytes b) {
  constexpr std::size_t type_and_class = 4;
  if (a.size() != b.size() || a.size() < type_and_class) return false;
  const std::size_t name = a.size() - type_and_class;
  return std::ranges::equal(a.first(name), b.first(name), {}, lower, lower) &&
         std::ranges::equal(a.subspan(name), b.subspan(name));
}

}  // namespace

std::size_t encode_query(std::span<std::uint8_t> message, std::uint16_t id, std::string_view name,
                         std::uint16_t type) {
  if (name.ends_with('.')) name.remove_suffix(1);
  if (name.empty() || name.size() + 2 > max_name) return 0;
  ByteWriter out(message);
  out.be16(id);
  out.be16(flag_recursion_desired);
  out.be16(1);  // questions
  for (int count = 0; count < 3; ++count) out.be16(0);
  for (bool last = false; !last;) {
    const std::size_t end = name.find('.');
    const std::string_view label = name.substr(0, end);
    if (label.empty() || label.size() > max_label) return 0;
    out.u8(label.size());
    out.put({reinterpret_cast<const std::uint8_t*>(label.data()), label.size()});
    last = end == std::string_view::npos;
    if (!last) name.remove_prefix(end + 1);
  }
  out.u8(0);
  out.be16(type);
  out.be16(class_in);
  return out.written();
}

int decode_answer(Bytes message, std::uint16_t type, std::vector<ResolvedAddress>& list) {
  const std::size_t before = list.size();
  const int found = for_each_address(
      message, type, [&list](const ResolvedAddress& address) { list.push_back(address); });
  if (found < 0) list.resize(before);
  return found;
}

std::optional<ResolvedAddress> first_address(Bytes message, std::uint16_t type) {
  std::optional<ResolvedAddress> first;
  const int found = for_each_address(message, type, [&first](const ResolvedAddress& address) {
    if (!first) first = address;
  });
  return found > 0 ? first : std::nullopt;
}

std::optional<Bytes> question_bytes(Bytes message) {
  ByteReader in(message);
  const Header header = read_header(in);
  if (!in.ok() || header.questions == 0 || !skip_name(message, in)) return std::nullopt;
  in.take(4);  // type and class
  if (!in.ok()) return std::nullopt;
  return message.subspan(header_size, message.size() - header_size - in.left());
}

bool answers_query(Bytes message, Bytes query) {
  ByteReader in(message);
  const Header header = read_header(in);
  ByteReader asked(query);
  if (!in.ok() || header.id != read_header(asked).id) return false;
  // A server that could not read the query has no question to repeat.
  if (header.questions == 0) return header.answers == 0;
  const auto question = question_bytes(message);
  const auto wanted = question_bytes(query);
  return question && wanted && same_question(*question, *wanted);
}

}  // namespace vrox::dns
