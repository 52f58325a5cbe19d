// SPDX-License-Identifier: Apache-2.0
//
// record_pool.h - the records of one list, counted one by one in the memory table but cut from
// larger pieces of memory (base/arena.h). Records of a list may be of two types, one the other's
// first member. A pool of all zero bytes is empty; it owns its memory until the last record is
// given back.
#pragma once

#include <cstring>

#include "base/arena.h"
#include "base/pol_memory.h"

namespace pol {

template <class Record, MemType kType, class Wide = Record>
class RecordPool {
 public:
  // A zero-filled record, or null when memory runs out.
  [[nodiscard]] Record* make(bool wide = false) {
    static_assert(sizeof(Record) % 8 == 0 && sizeof(Wide) % 8 == 0);
    const size_t size = wide ? sizeof(Wide) : sizeof(Record);
    count_record(kType);
    void* memory = arena_.take(wide ? 1 : 0, size);
    if (memory == nullptr) return nullptr;
    ++records_;
    return static_cast<Record*>(memset(memory, 0, size));
  }
  void give(Record* record, bool wide = false) {
    count_record_freed(kType);
    arena_.give(record, wide ? 1 : 0);
    if (--records_ == 0) arena_.release();
  }

 private:
  Arena arena_;
  size_t records_;
};

}  // namespace pol
