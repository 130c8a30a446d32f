// An intrusive doubly linked list: an element leaves it in constant time
// wherever it stands. An element names its list by the member that links it.
#pragma once

namespace vrox {

template <class T>
struct Links {
  T* previous = nullptr;
  T* next = nullptr;
  bool linked = false;
};

template <class T, Links<T> T::*Member>
class LinkedList {
 public:
  [[nodiscard]] bool empty() const { return first_ == nullptr; }
  [[nodiscard]] T* first() const { return first_; }
  [[nodiscard]] static T* next(const T& element) { return (element.*Member).next; }

  // At the end; nothing when it is in the list already.
  void add(T& element) {
    Links<T>& links = element.*Member;
    if (links.linked) return;
    links = {.previous = last_, .next = nullptr, .linked = true};
    (last_ == nullptr ? first_ : (last_->*Member).next) = &element;
    last_ = &element;
  }

  void remove(T& element) {
    Links<T>& links = element.*Member;
    if (!links.linked) return;
    (links.previous == nullptr ? first_ : (links.previous->*Member).next) = links.next;
    (links.next == nullptr ? last_ : (links.next->*Member).previous) = links.previous;
    links = {};
  }

  // Makes an element of the list its first; those before it go behind the last.
  void rotate_to(T& element) {
    if (first_ == &element) return;
    T* new_last = (element.*Member).previous;
    (last_->*Member).next = first_;
    (first_->*Member).previous = last_;
    (new_last->*Member).next = nullptr;
    (element.*Member).previous = nullptr;
    first_ = &element;
    last_ = new_last;
  }

 private:
  T* first_ = nullptr;
  T* last_ = nullptr;
};

}  // namespace vrox
