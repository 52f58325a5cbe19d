// SPDX-License-Identifier: Apache-2.0
// Counted memory.
#include "base/pol_memory.h"

#include <cstdlib>

namespace pol {
namespace {

bool counted(uint32_t type) { return type >= 1 && type < POL_MEM_TYPES; }

}  // namespace

void count_allocation(uint32_t type) {
  if (!counted(type)) return;
  t_pol_mem_info& row = g_pol_mem_info[type];
  uint64_t allocs = __atomic_add_fetch(&row.allocs, 1, __ATOMIC_RELAXED);
  uint64_t frees = __atomic_load_n(&row.frees, __ATOMIC_RELAXED);
  // Another thread may have freed since: a count below zero is no peak.
  uint64_t current = allocs > frees ? allocs - frees : 0;
  uint64_t peak = __atomic_load_n(&row.peak, __ATOMIC_RELAXED);
  while (current > peak && !__atomic_compare_exchange_n(&row.peak, &peak, current, true,
                                                        __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
}

void count_free(uint32_t type) {
  if (counted(type)) __atomic_add_fetch(&g_pol_mem_info[type].frees, 1, __ATOMIC_RELAXED);
}

// The table may be read on any thread meanwhile.
void count_record(MemType type) {
  t_pol_mem_info& row = g_pol_mem_info[type];
  const uint64_t allocs = row.allocs + 1;
  __atomic_store_n(&row.allocs, allocs, __ATOMIC_RELAXED);
  const uint64_t current = allocs > row.frees ? allocs - row.frees : 0;
  if (current > row.peak) __atomic_store_n(&row.peak, current, __ATOMIC_RELAXED);
}

void count_record_freed(MemType type) {
  t_pol_mem_info& row = g_pol_mem_info[type];
  __atomic_store_n(&row.frees, row.frees + 1, __ATOMIC_RELAXED);
}

}  // namespace pol

void* pol_malloc(size_t size, uint32_t type) {
  pol::count_allocation(type);
  return malloc(size);
}

void* pol_calloc(size_t count, size_t size, uint32_t type) {
  pol::count_allocation(type);
  return calloc(count, size);
}

void* pol_realloc(void* memory, size_t size) { return realloc(memory, size); }

void pol_free(void* memory, uint32_t type) {
  if (memory == nullptr) return;
  pol::count_free(type);
  free(memory);
}
