// SPDX-License-Identifier: Apache-2.0
//
// avl_tree.h - the platform's ordered tree with the type of its nodes.
#pragma once

#include <cstddef>

#include "kel/avl.h"

namespace pol {

// What a comparison function returns: -1, 0 or 1.
inline int sign(int order) { return (order > 0) - (order < 0); }

template <class Node>
class AvlTree {
 public:
  // `compare` is given a key and a node; keys are what the tree's find is called with.
  void create(avl_compare compare, size_t link_offset) {
    avl_create(&tree_, compare, sizeof(Node), link_offset);
  }
  void destroy() { avl_destroy(&tree_); }

  Node* find(const void* key, avl_index* where = nullptr) const {
    return static_cast<Node*>(avl_find(&tree_, key, where));
  }
  void insert(Node* node, avl_index where) { avl_insert(&tree_, node, where); }
  void remove(Node* node) { avl_remove(&tree_, node); }
  Node* first() const { return static_cast<Node*>(avl_first(&tree_)); }
  Node* next(const Node* node) const {
    return static_cast<Node*>(avl_walk(&tree_, node, AVL_AFTER));
  }
  Node* previous(const Node* node) const {
    return static_cast<Node*>(avl_walk(&tree_, node, AVL_BEFORE));
  }
  // Takes nodes out until none is left; nothing else may touch the tree between two calls.
  Node* drain(void** cookie) { return static_cast<Node*>(avl_destroy_nodes(&tree_, cookie)); }

  // For the C interface, which knows a tree by its platform type.
  avl_tree* raw() { return &tree_; }

 private:
  avl_tree tree_;
};

}  // namespace pol
