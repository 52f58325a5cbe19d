// SPDX-License-Identifier: Apache-2.0
//
// record_pool.h - the records of one list, counted one by one in the memory table but cut from
// larger pieces of memory (base/arena.h). A pool of all zero bytes is empty; it owns its memory
// until the last record is given back.
#pragma once

#include <cstring>

#include "base/arena.h"
#include "base/pol_memory.h"

namespace pol {

template <class Record, MemType kType>
class RecordPool {
 public:
  // A zero-filled record, or null when memory runs out.
  [[nodiscard]] Record* make() {
    static_assert(sizeof(Record) % 8 == 0);
    count_allocation(kType);
    void* memory = arena_.take(0, sizeof(Record));
    if (memory == nullptr) return nullptr;
    ++records_;
    return static_cast<Record*>(memset(memory, 0, sizeof(Record)));
  }
  void give(Record* record) {
    count_free(kType);
    arena_.give(record, 0);
    if (--records_ == 0) arena_.release();
  }

 private:
  Arena arena_;
  size_t records_;
};

}  // namespace pol
