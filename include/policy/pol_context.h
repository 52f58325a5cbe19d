/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_context.h - the policy context, counted memory and the debug level.
 *
 * A process has one context. The library takes no locks: the host serialises every call on it, but
 * for evaluation (pol_exec.h), which only reads. The library's own thread counts in g_pol_mem_info
 * and reads g_pol_dbg_level too: set the level with pol_debug_set, and expect the counters of one
 * row to be of slightly different moments.
 */
#ifndef POLICY_POL_CONTEXT_H
#define POLICY_POL_CONTEXT_H

#include "policy/pol_types.h"

#define POL_VERSION "1.0.0"
#define POL_MEM_TYPES 33

/* The version of the loaded library, as POL_VERSION is that of the one compiled against. */
POL_API const char* pol_version(void);

/* One row of the memory table; the row's index is the memory type. */
typedef struct t_pol_mem_info {
  uint32_t type;
  uint8_t cache;
  const char* description;
  const char* type_name;
  uint32_t size; /* of one object, 0 where the type has no fixed record */
  uint64_t allocs;
  uint64_t frees;
  uint64_t peak; /* highest allocs - frees ever */
} t_pol_mem_info;

/* Counts run over the life of the process, across pol_destroy and a new pol_init. */
POL_DATA t_pol_mem_info g_pol_mem_info[POL_MEM_TYPES];

/* The context, null before pol_init and after pol_destroy. */
POL_DATA t_pol_ctx* g_pol_ctx_p;

/* 0 logs nothing but the words of a text policy file, ranges of lists that cannot be read, a
 * reported application list or the cache's lock that cannot be made, and failures of the show data
 * and of the filter; above 0 trace and errors; from 3 and 4 on the agent and XML traces. A line is
 * one call of syslog, at local7.debug. */
POL_DATA int32_t g_pol_dbg_level;

/* Scratch space in which log statements print TLOCs; shared by all of them. */
POL_DATA char g_polbuf1[512];

/* Makes the context and publishes it in g_pol_ctx_p. `callbacks` is read during the call only. Null
 * when `callbacks` is null or something could not be had; then nothing is rolled back and the host
 * gives up: it may still call pol_destroy, and nothing else. A second call without pol_destroy
 * replaces the global. */
POL_API t_pol_ctx* pol_init(const t_pol_callbacks* callbacks);

/* Frees every policy, list and user, ends the worker, then frees the context. Nobody is called
 * back. Every user is gone with it: until the next pol_init, pol_unregister still takes a handle
 * and only sets it to null; any other use of one, and any use after the next pol_init, is use of
 * freed memory. List users stay allocated, without their list; pol_list_unregister does nothing
 * with them. Requests to the agent that are pending are dropped; the call waits
 * for the agent's answer to the one in hand. */
POL_API void pol_destroy(void);

/* malloc, calloc and free that count for memory type 1 to 32; any other type is not counted. The
 * count is bumped before the allocation and stays when it fails. pol_free ignores null. */
POL_API void* pol_malloc(size_t size, uint32_t type);
POL_API void* pol_calloc(size_t count, size_t size, uint32_t type);
POL_API void pol_free(void* memory, uint32_t type);

/* realloc, not counted: the block keeps the type it was allocated with. */
POL_API void* pol_realloc(void* memory, size_t size);

POL_API void pol_debug_set(uint32_t level);

#endif
