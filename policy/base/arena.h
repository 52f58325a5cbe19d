// SPDX-License-Identifier: Apache-2.0
//
// arena.h - small blocks of few sizes, cut from larger pieces of memory.
//
// What indexes over lists consist of is small, of few sizes, and comes and goes in great numbers: a
// block costs no header and a pointer's move. A block given back is used for the next of its class;
// memory goes back to the system as a whole, by release(). An arena of all zero bytes is empty and
// owns nothing. Its memory is uncounted.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pol {

class Arena {
 public:
  static constexpr unsigned kClasses = 14;

  // A block of that class, not cleared; null when memory runs out. REQUIRES: one size a class, a
  // multiple of 8.
  [[nodiscard]] void* take(unsigned size_class, size_t size) {
    if ((given_ >> size_class & 1) != 0) return take_given(size_class);
    return take_new(size);
  }
  void give(void* block, unsigned size_class) {
    auto* free = static_cast<Free*>(block);
    free->next = free_[size_class];
    free_[size_class] = free;
    given_ |= 1u << size_class;
  }
  // Of memory that it holds, in use or not.
  size_t bytes() const { return bytes_; }
  // The classes of which blocks were given back and not taken since, as bits.
  uint32_t given() const { return given_; }
  // REQUIRES: such a block.
  [[nodiscard]] void* take_given(unsigned size_class) {
    Free* block = free_[size_class];
    free_[size_class] = block->next;
    if (block->next == nullptr) given_ &= ~(1u << size_class);
    return block;
  }
  [[nodiscard]] void* take_new(size_t size) {
    if (size > static_cast<size_t>(end_ - next_) && !grow(size)) return nullptr;
    void* block = next_;
    next_ += size;
    return block;
  }
  // Frees everything at once.
  void release();

 private:
  struct Free {
    Free* next;
  };
  struct Piece {
    Piece* before;
  };

  bool grow(size_t size);

  Free* free_[kClasses];
  Piece* pieces_;
  char* next_;
  char* end_;
  size_t bytes_;  // of all pieces
  uint32_t given_;
};

}  // namespace pol
