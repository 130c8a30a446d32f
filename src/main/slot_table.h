// A fixed table of slots, allocated once, and an atomic bitmap of the free ones.
//
// claim() is for any thread; whoever claimed a slot fills it and hands it to the
// owner's loop. release() is the owner's, after the slot was cleared and at the
// end of the pass of its loop, so that a stale event of the same pass can never
// reach a slot that is in use again.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>

namespace vrox {

template <class T>
class SlotTable {
 public:
  // At least one slot. False when memory is short.
  [[nodiscard]] bool allocate(std::size_t slots) {
    const std::size_t words = (slots + word_bits - 1) / word_bits;
    const std::size_t summary_words = (words + word_bits - 1) / word_bits;
    slots_ = new (std::nothrow) T[slots];
    free_ = new (std::nothrow) Word[words]{};
    summary_ = new (std::nothrow) Word[summary_words]{};
    if (slots_ == nullptr || free_ == nullptr || summary_ == nullptr) return false;
    size_ = slots;
    summary_words_ = summary_words;
    for (std::size_t i = 0; i < slots; ++i) set_free(i);
    return true;
  }

  // The free slot with the lowest index, now taken; null when all are in use.
  [[nodiscard]] T* claim() {
    for (std::size_t s = 0; s < summary_words_; ++s) {
      for (std::uint64_t map = summary_[s].load(std::memory_order_acquire); map != 0;
           map &= map - 1) {
        if (T* slot = claim_in(s * word_bits + lowest(map))) return slot;
      }
    }
    return nullptr;
  }

  void release(T& slot) {
    in_use_.fetch_sub(1, std::memory_order_relaxed);
    set_free(index_of(slot));
  }

  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] std::size_t in_use() const { return in_use_.load(std::memory_order_relaxed); }
  [[nodiscard]] std::size_t index_of(const T& slot) const {
    return static_cast<std::size_t>(&slot - slots_);
  }
  [[nodiscard]] std::span<T> slots() { return {slots_, size_}; }

 private:
  using Word = std::atomic<std::uint64_t>;
  static constexpr std::size_t word_bits = 64;

  static std::size_t lowest(std::uint64_t map) {
    return static_cast<std::size_t>(std::countr_zero(map));
  }
  static std::uint64_t bit(std::size_t index) { return std::uint64_t{1} << (index % word_bits); }

  T* claim_in(std::size_t word) {
    std::uint64_t map = free_[word].load(std::memory_order_acquire);
    while (map != 0) {
      const std::size_t index = word * word_bits + lowest(map);
      const std::uint64_t rest = map & (map - 1);
      // Acquires what the owner did before it released the slot.
      if (!free_[word].compare_exchange_weak(map, rest, std::memory_order_acq_rel)) continue;
      if (rest == 0) unmark(word);
      in_use_.fetch_add(1, std::memory_order_relaxed);
      return &slots_[index];
    }
    return nullptr;
  }

  void set_free(std::size_t index) {
    const std::size_t word = index / word_bits;
    free_[word].fetch_or(bit(index), std::memory_order_seq_cst);
    summary_[word / word_bits].fetch_or(bit(word), std::memory_order_seq_cst);
  }

  // The summary may promise a free slot that is gone, but never hide one: a
  // release between the claim and this mark is looked for again.
  void unmark(std::size_t word) {
    summary_[word / word_bits].fetch_and(~bit(word), std::memory_order_seq_cst);
    if (free_[word].load(std::memory_order_seq_cst) != 0) {
      summary_[word / word_bits].fetch_or(bit(word), std::memory_order_seq_cst);
    }
  }

  // Lives as long as the process: threads still run while it exits.
  T* slots_ = nullptr;
  Word* free_ = nullptr;     // a bit per slot
  Word* summary_ = nullptr;  // a bit per word of free_ that may not be zero
  std::size_t size_ = 0;
  std::size_t summary_words_ = 0;
  std::atomic<std::size_t> in_use_ = 0;
};

}  // namespace vrox
