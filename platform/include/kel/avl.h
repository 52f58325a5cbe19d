/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/avl.h - ordered tree of the system's common library: an intrusive AVL tree.
 *
 * A node embeds an avl_node; the tree never allocates, copies or frees one. Equal keys are refused
 * by find-then-insert: avl_find says where a missing key belongs, avl_insert puts it there.
 *
 * REQUIRES: a tree does not move in memory while it holds nodes. Not thread-safe.
 */
#ifndef KEL_AVL_H
#define KEL_AVL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct avl_node {
  struct avl_node* parent;
  struct avl_node* child[2]; /* left, right */
  int32_t balance;
} avl_node;

/* Compares a key with a node, or two nodes: negative, 0 or positive, like strcmp. */
typedef int (*avl_compare)(const void* key, const void* node);

typedef struct avl_tree {
  avl_node header; /* parent: root; children: first and last node */
  avl_compare compare;
  size_t offset; /* of the avl_node in the user's node */
  size_t count;
} avl_tree;

/* An insertion point, valid until the tree changes. */
typedef uintptr_t avl_index;

enum { AVL_BEFORE = 0, AVL_AFTER = 1 };

/* Makes an empty tree of nodes of `size` bytes whose avl_node lies `offset` bytes in. */
void avl_create(avl_tree* tree, avl_compare compare, size_t size, size_t offset);

/* Returns the node that equals `key`, or null; then `where`, unless null, says where it belongs. */
void* avl_find(const avl_tree* tree, const void* key, avl_index* where);

/* REQUIRES: `where` comes from a failed avl_find for this node's key, the tree unchanged since. */
void avl_insert(avl_tree* tree, void* node, avl_index where);

void avl_remove(avl_tree* tree, void* node);

void* avl_first(const avl_tree* tree);

/* The neighbour of `node` in key order: AVL_AFTER the successor, AVL_BEFORE the predecessor. */
void* avl_walk(const avl_tree* tree, const void* node, int direction);

/* Empties the tree a node a call, in key order, without rebalancing: returns a node that is no
 * longer in the tree, null when none is left. `cookie` starts as null; between calls the tree may
 * only be emptied further. */
void* avl_destroy_nodes(avl_tree* tree, void** cookie);

/* Forgets an empty tree. */
void avl_destroy(avl_tree* tree);

/* Calls visit(node, arg) for every node in key order. `visit` does not change the tree. */
void avl_foreach(const avl_tree* tree, void (*visit)(void* node, void* arg), void* arg);

#ifdef __cplusplus
}
#endif
#endif
