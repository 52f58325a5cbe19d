// SPDX-License-Identifier: Apache-2.0
//
// range_set.h - ranges of ids in the order they were added, and in O(log n) whether any holds an
// id.
//
// Beside the queue stands an AVL tree of the ranges by (low, high) in which every node knows the
// highest `high` of its subtree. The links lie in the elements: the set allocates nothing, and
// adding or removing one range touches one path. Ranges with low above high are kept and hold
// nothing. A set of all zero bytes is empty.
//
// Invariants
//   1. No two ranges have the same (low, high).
//   2. height is 1 + the greater of the subtrees' heights, which differ by one at the most.
//   3. max_high is the greatest `high` in the node's subtree.
#pragma once

#include <cstdint>

#include "base/tail_queue.h"

namespace pol {

struct RangeNode {
  TailLink<RangeNode> link;
  uint64_t low;
  uint64_t high;  // inclusive
  uint64_t max_high;
  RangeNode* child[2];
  int height;
};

class RangeSet {
 public:
  using Queue = TailQueue<RangeNode, &RangeNode::link>;

  const Queue& in_order() const { return in_order_; }
  bool empty() const { return in_order_.empty(); }
  RangeNode* find(uint64_t low, uint64_t high) const;
  // REQUIRES: no range with the same bounds is in the set.
  void add(RangeNode* node);
  // REQUIRES: `node` is in the set.
  void remove(RangeNode* node);

  // Among the ranges that start at or below `id`, one holds it exactly when their greatest end
  // does: each step either sees that or discards a subtree.
  bool holds(uint64_t id) const {
    const RangeNode* node = root_;
    while (node != nullptr) {
      if (node->low > id) {
        node = node->child[0];
        continue;
      }
      if (node->high >= id) return true;
      if (node->child[0] != nullptr && node->child[0]->max_high >= id) return true;
      node = node->child[1];
    }
    return false;
  }

  // A range that holds the id, where several do no particular one; null when none does.
  const RangeNode* holding(uint64_t id) const {
    const RangeNode* node = root_;
    while (node != nullptr) {
      const RangeNode* left = node->child[0];
      if (node->low <= id && node->high >= id) return node;
      node = node->low > id || (left != nullptr && left->max_high >= id) ? left : node->child[1];
    }
    return nullptr;
  }

  // Takes all elements out at once, oldest first, and gives each to `release`.
  template <class Release>
  void clear(Release release) {
    root_ = nullptr;
    while (RangeNode* node = in_order_.pop_front()) release(node);
  }

 private:
  Queue in_order_;
  RangeNode* root_;
};

}  // namespace pol
