/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_changes.h - being told of configuration changes.
 *
 * A subscriber has a socket of its own, on which the agent sends one batch of changes for each
 * commit that touches what it subscribed to. Poll the socket for input, then take the batch whole
 * with yarrow_sub_read and walk it with yarrow_batch_iterate. Commits do not wait for subscribers:
 * one that lags behind by more than 256 commits gets the older ones as a single batch.
 *
 * Order  in a batch: lists before the objects and policies that name them; in one list the deleted
 *        entries before the others, each in key order; an entry that is created or modified before
 * what it holds. A deleted entry is told once, its members are not. An entry is MODIFIED, without
 *        values, also when only a member of it changed.
 */
#ifndef YARROW_CHANGES_H
#define YARROW_CHANGES_H

#include "yarrow/yarrow_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One changed list entry, or one leaf outside any list. All it points to lives until the batch is
 * freed. */
typedef struct t_yarrow_change {
  const char* path; /* without keys: "/policy/lists/site-list/site" */
  uint32_t op;      /* a t_yarrow_op */
  uint8_t level;    /* lists on the path: 1 "site-list", 2 "site-list/site"; 0 no list */
  uint32_t key_count;
  const t_yarrow_value* keys; /* of all lists on the path, outermost first */
  uint32_t value_count;       /* at most 65535 */
  /* The changed leaves of the entry itself, not of lists in it, in schema order and without its
   * keys. A container stands as C_XMLBEGIN and C_XMLEND around what changed in it, and not at all
   * if nothing did. A removed leaf is C_NOEXISTS, or its default
   * where the schema gives one. A changed leaf-list comes whole. */
  const t_yarrow_tag_value* values;
} t_yarrow_change;

typedef struct t_yarrow_batch t_yarrow_batch;

enum {
  YARROW_SUB_INITIAL = 0x1 /* first a batch that makes the present configuration from nothing */
};

/* Connects a fresh stream socket and subscribes it to the configuration below the path ("/": all).
 * With YARROW_SUB_INITIAL the first batch comes even if it is empty, and no commit is missed after
 * it. Reads the schema too (yarrow_load_schemas): batches are checked against it. */
int yarrow_sub_connect(int sock, const struct sockaddr* addr, socklen_t addr_len, const char* path,
                       unsigned flags);

/* Waits for the next batch, at most `timeout_ms` (negative: without limit), and hands it out; the
 * caller frees it with yarrow_batch_free. Returns 1 with a batch, 0 when the time is over before
 * one began, YARROW_EOF when the agent has closed, YARROW_ERR when the connection is of no further
 * use: a key or value of another type than its node's is such an error, named by path. */
int yarrow_sub_read(int sock, int timeout_ms, t_yarrow_batch** batch);

void yarrow_batch_free(t_yarrow_batch* batch);

/* The number of the (last) commit that the batch tells; see maapi_commit_id. */
int64_t yarrow_batch_commit_id(const t_yarrow_batch* batch);

/* Changes in the batch, and the one at `index`, null beyond the end. */
uint32_t yarrow_batch_count(const t_yarrow_batch* batch);
const t_yarrow_change* yarrow_batch_change(const t_yarrow_batch* batch, uint32_t index);

/* Calls `visit` for each change in order until it returns other than 0; returns what it returned
 * last. Null batch: 0. */
typedef int (*yarrow_visit_change)(const t_yarrow_change* change, void* state);
int yarrow_batch_iterate(const t_yarrow_batch* batch, yarrow_visit_change visit, void* state);

#ifdef __cplusplus
}
#endif
#endif
