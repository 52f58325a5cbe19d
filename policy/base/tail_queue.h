// SPDX-License-Identifier: Apache-2.0
//
// tail_queue.h - intrusive first-in-first-out queues.
//
// A record may sit on several queues at once, through one link each. A queue and a link of all zero
// bytes are empty and unlinked, so records from calloc need no set-up. Nothing is owned.
//
// Invariants
//   1. link.back points at the pointer that points at the record, or is null when it is on no
//      queue.
//   2. last_ is the address of the final null pointer; it means nothing while the queue is empty.
#pragma once

namespace pol {

template <class T>
struct TailLink {
  T* next;
  T** back;
};

template <class T, TailLink<T> T::*kLink>
class TailQueue {
 public:
  bool empty() const { return first_ == nullptr; }
  T* front() const { return first_; }
  static T* next(const T* record) { return (record->*kLink).next; }
  static bool linked(const T* record) { return (record->*kLink).back != nullptr; }

  void push_back(T* record) {
    if (first_ == nullptr) last_ = &first_;
    TailLink<T>& link = record->*kLink;
    link.next = nullptr;
    link.back = last_;
    *last_ = record;
    last_ = &link.next;
  }

  // REQUIRES: `record` is on this queue.
  void remove(T* record) {
    TailLink<T>& link = record->*kLink;
    if (link.next != nullptr) {
      (link.next->*kLink).back = link.back;
    } else {
      last_ = link.back;
    }
    *link.back = link.next;
    link = {};
  }

  // REQUIRES: `after` is on this queue; null stands for the front.
  void insert_after(T* after, T* record) {
    T* next = after != nullptr ? (after->*kLink).next : first_;
    if (next == nullptr) return push_back(record);
    TailLink<T>& link = record->*kLink;
    link.next = next;
    link.back = (next->*kLink).back;
    *link.back = record;
    (next->*kLink).back = &link.next;
  }

  T* pop_front() {
    T* record = first_;
    if (record != nullptr) remove(record);
    return record;
  }

  class Iterator {
   public:
    explicit Iterator(T* record) : record_(record) {}
    T& operator*() const { return *record_; }
    Iterator& operator++() {
      record_ = (record_->*kLink).next;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return record_ != other.record_; }

   private:
    T* record_;
  };
  // The queue must not change under the walk.
  Iterator begin() const { return Iterator(first_); }
  Iterator end() const { return Iterator(nullptr); }

 private:
  T* first_;
  T** last_;
};

}  // namespace pol
