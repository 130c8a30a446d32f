// An intrusive index of elements that live elsewhere, found by a key that peers
// may choose. An element has a `key` (an array of bytes) and `bucket_next`, and
// is in one index at most.
#pragma once

#include <bit>
#include <cstddef>
#include <new>

#include "main/random.h"

namespace vrox {

template <class T>
class HashIndex {
 public:
  using Key = decltype(T::key);

  // For up to `elements` of them; more only make it slower. False when memory is
  // short.
  [[nodiscard]] bool allocate(std::size_t elements) {
    const std::size_t count = std::bit_ceil(elements);
    buckets_ = new (std::nothrow) T* [count] {};
    mask_ = count - 1;
    return buckets_ != nullptr;
  }

  [[nodiscard]] T* find(const Key& key) const {
    T* at = bucket(key);
    while (at != nullptr && at->key != key) at = at->bucket_next;
    return at;
  }
  void insert(T& element) {
    T*& head = bucket(element.key);
    element.bucket_next = head;
    head = &element;
  }
  // Nothing when it is not in the index.
  void remove(T& element) {
    for (T** link = &bucket(element.key); *link != nullptr; link = &(*link)->bucket_next) {
      if (*link != &element) continue;
      *link = element.bucket_next;
      element.bucket_next = nullptr;
      return;
    }
  }

 private:
  [[nodiscard]] T*& bucket(const Key& key) const { return buckets_[keyed_hash(key) & mask_]; }

  // Lives as long as the process: threads still run while it exits.
  T** buckets_ = nullptr;
  std::size_t mask_ = 0;
};

}  // namespace vrox
