// Tables of keys: one row per key, tested in the table's order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "config/syntax.h"

namespace vrox::config {

// What became of a key. `unknown` stands for a key, or a value of a key, that
// ends the load with the line error; `failed` was already reported.
enum class KeyResult : std::uint8_t { applied, unknown, failed };

[[nodiscard]] constexpr KeyResult known_if(bool applied) {
  return applied ? KeyResult::applied : KeyResult::unknown;
}

// A key of `Record`.
template <class Record>
struct Key {
  std::string_view keyword;
  KeyResult (*apply)(std::string_view key, std::string_view value, Record& record);
};

constexpr char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// A keyword behind its own prefix could never be reached (tun_addr before tun_addr6).
template <class Row, std::size_t Size>
consteval bool all_reachable(const std::array<Row, Size>& table) {
  for (std::size_t late = 0; late < Size; ++late) {
    for (std::size_t early = 0; early < late; ++early) {
      const std::string_view hidden = table[late].keyword;
      const std::string_view prefix = table[early].keyword;
      std::size_t same = 0;
      while (same < prefix.size() && same < hidden.size() &&
             lower(prefix[same]) == lower(hidden[same])) {
        ++same;
      }
      if (same == prefix.size()) return false;
    }
  }
  return true;
}

// The first row whose keyword begins the key; null when there is none.
template <class Row, std::size_t Size>
[[nodiscard]] const Row* find_key(const std::array<Row, Size>& table, std::string_view key) {
  for (const Row& row : table) {
    if (is_key(key, row.keyword)) return &row;
  }
  return nullptr;
}

// Applies a key by its row.
template <class Record, std::size_t Size>
[[nodiscard]] KeyResult apply_key(const std::array<Key<Record>, Size>& table, std::string_view key,
                                  std::string_view value, Record& record) {
  const Key<Record>* row = find_key(table, key);
  return row == nullptr ? KeyResult::unknown : row->apply(key, value, record);
}

// The keywords of a table, in its order.
template <const auto& Table>
[[nodiscard]] std::span<const std::string_view> keywords_of() {
  static constexpr auto words = [] {
    std::array<std::string_view, Table.size()> all{};
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = Table[i].keyword;
    return all;
  }();
  return words;
}

}  // namespace vrox::config
