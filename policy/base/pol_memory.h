// SPDX-License-Identifier: Apache-2.0
//
// pol_memory.h - the memory types by name, and typed allocation.
#pragma once

#include <cstddef>
#include <cstdint>

#include "policy/pol_context.h"

namespace pol {

enum MemType : uint32_t {
  MEM_UNCOUNTED = 0,
  MEM_CONTEXT = 1,
  MEM_BLOCK = 2,
  MEM_ENTRY = 3,
  MEM_THREAD_ITEM = 4,
  MEM_PEER_XML = 6,
  MEM_SET_XML = 7,
  MEM_POLICY_CONFIG = 8,
  MEM_FETCH_XML = 9,
  MEM_CONFIG_XML = 10,
  MEM_SLA_CLASS = 11,
  MEM_POLICER = 12,
  MEM_USER = 14,
  MEM_LIST_USER = 15,
  MEM_PFX_LIST = 16,
  MEM_FWD_PFX_LIST = 17,
  MEM_SITE_LIST = 18,
  MEM_TLOC_LIST = 19,
  MEM_APP_LIST = 20,
  MEM_COLOR_LIST = 21,
  MEM_VPN_LIST = 22,
  MEM_SET_VPN_LIST = 23,
  MEM_FWD_ENTRY = 24,
  MEM_SITE_ENTRY = 25,
  MEM_LIST_NAME = 26,
  MEM_PFX_ENTRY = 27,
  MEM_TLOC_ENTRY = 28,
  MEM_COLOR_ENTRY = 29,
  MEM_VPN_ENTRY = 30,
  MEM_FWD_VPN_ENTRY = 31,
  MEM_APP_ID = 32,
};

// What pol_malloc and pol_free count, for memory that comes from elsewhere.
void count_allocation(uint32_t type);
void count_free(uint32_t type);

// The same for records that only calls on the context make and free, which the host serialises:
// without the locked instructions, each of which waits for every store before it.
void count_record(MemType type);
void count_record_freed(MemType type);

// A zero-filled record, or null.
template <class T>
[[nodiscard]] T* alloc(MemType type) {
  return static_cast<T*>(pol_calloc(1, sizeof(T), type));
}

}  // namespace pol
