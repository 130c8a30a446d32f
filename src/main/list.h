// Intrusive singly linked lists of configuration records, and their last form:
// rings, from which the least-used element is picked. Elements have a `next`
// field, are allocated while the configuration is read and never freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace vrox {

template <class T>
struct List {
  T* head = nullptr;
  T* tail = nullptr;

  [[nodiscard]] bool empty() const { return head == nullptr; }

  void push_back(T* element) {
    element->next = nullptr;
    (tail == nullptr ? head : tail->next) = element;
    tail = element;
  }
  void push_front(T* element) {
    element->next = head;
    head = element;
    if (tail == nullptr) tail = element;
  }

  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    explicit Iterator(T* at = nullptr) : at_(at) {}
    T& operator*() const { return *at_; }
    Iterator& operator++() {
      at_ = at_->next;
      return *this;
    }
    Iterator operator++(int) {
      const Iterator before = *this;
      at_ = at_->next;
      return before;
    }
    bool operator==(const Iterator&) const = default;

   private:
    T* at_;
  };
  [[nodiscard]] Iterator begin() const { return Iterator(head); }
  [[nodiscard]] Iterator end() const { return Iterator(nullptr); }
};

// A circular list and the element at which the next choice starts. Owned by one
// thread, which also owns the elements' use counts.
template <class T>
struct Ring {
  T* head = nullptr;

  [[nodiscard]] bool empty() const { return head == nullptr; }
};

// Closes a list into a ring; the list must not be walked afterwards.
template <class T>
[[nodiscard]] Ring<T> close_ring(const List<T>& list) {
  if (list.tail != nullptr) list.tail->next = list.head;
  return Ring<T>{list.head};
}

// The element whose use count is smallest, the first from the head among
// equals. Counts its use and moves the head behind it. The ring must not be
// empty. `use_count` names the count (signed 32-bit) that belongs to an element.
template <class T, class UseCount>
[[nodiscard]] T& pick_least_used(Ring<T>& ring, UseCount use_count) {
  T* best = ring.head;
  for (T* at = ring.head->next; at != ring.head; at = at->next) {
    if (use_count(*at) < use_count(*best)) best = at;
  }
  ring.head = best->next;
  std::int32_t& count = use_count(*best);
  ++count;
  return *best;
}

}  // namespace vrox
