/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_schema.h - the agent's schema, as loaded into this process.
 *
 * The schema is read from the agent once and then stays; nodes are constant and live as long as the
 * process.
 */
#ifndef YARROW_SCHEMA_H
#define YARROW_SCHEMA_H

#include "yarrow/yarrow_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum t_yarrow_node_kind {
  YARROW_NODE_CONTAINER = 1,
  YARROW_NODE_LIST = 2,
  YARROW_NODE_LEAF = 3,
  YARROW_NODE_LEAF_LIST = 4
} t_yarrow_node_kind;

typedef struct t_yarrow_cs_node {
  const char* name;
  const char* prefix; /* of its module */
  uint32_t tag;       /* of the name: nodes of one name share it; see yarrow_types.h */
  uint32_t ns;        /* of the module's namespace */
  uint32_t kind;      /* a t_yarrow_node_kind */
  uint32_t type;      /* value-type code of a leaf's value or of a leaf-list's elements; else 0 */
  uint32_t key_count; /* of a list: its first leaves, in order, are the keys */
  uint32_t is_state;  /* 1: state data, found in the operational datastore only */
  const struct t_yarrow_cs_node* parent; /* null at the top */
  const struct t_yarrow_cs_node* children;
  const struct t_yarrow_cs_node* next; /* sibling, in schema order */
} t_yarrow_cs_node;

/* Reads the schema from the agent at `addr` unless this process has it already. */
int yarrow_load_schemas(const struct sockaddr* addr, socklen_t addr_len);

/* The schema node at a path below `start` (null: from the top), or null. Steps may carry the
 * module's prefix ("/p:policy/p:lists") and keys, which are ignored. Reads the schema first, from
 * 127.0.0.1 port 3010, if no one did: null may thus also mean YARROW_ERR_NOTCONNECTED, and the next
 * call tries again.
 * "/" with no start gives the first top-level node. Safe from any thread. */
const t_yarrow_cs_node* yarrow_cs_node_cd(const t_yarrow_cs_node* start, const char* format, ...)
    YARROW_PRINTF(2, 3);

#ifdef __cplusplus
}
#endif
#endif
