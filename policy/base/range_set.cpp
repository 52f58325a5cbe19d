// SPDX-License-Identifier: Apache-2.0
#include "base/range_set.h"

#include <algorithm>
#include <tuple>

namespace pol {
namespace {

int height(const RangeNode* node) { return node != nullptr ? node->height : 0; }

bool before(const RangeNode* a, const RangeNode* b) {
  return std::tie(a->low, a->high) < std::tie(b->low, b->high);
}

void refresh(RangeNode* node) {
  node->height = 1 + std::max(height(node->child[0]), height(node->child[1]));
  node->max_high = node->high;
  for (const RangeNode* child : node->child) {
    if (child != nullptr) node->max_high = std::max(node->max_high, child->max_high);
  }
}

// Lifts the child on `side` above its parent and returns it.
RangeNode* rotate(RangeNode* node, int side) {
  RangeNode* up = node->child[side];
  node->child[side] = up->child[1 - side];
  up->child[1 - side] = node;
  refresh(node);
  refresh(up);
  return up;
}

RangeNode* balance(RangeNode* node) {
  int lean = height(node->child[1]) - height(node->child[0]);
  if (lean < -1 || lean > 1) {
    int side = lean > 0 ? 1 : 0;
    RangeNode* child = node->child[side];
    if (height(child->child[1 - side]) > height(child->child[side])) {
      node->child[side] = rotate(child, 1 - side);
    }
    return rotate(node, side);
  }
  refresh(node);
  return node;
}

// The recursions are as deep as the tree is high: under 1.45 log2(n).
RangeNode* insert_below(RangeNode* root, RangeNode* node) {
  if (root == nullptr) {
    node->child[0] = node->child[1] = nullptr;
    refresh(node);
    return node;
  }
  int side = before(root, node) ? 1 : 0;
  root->child[side] = insert_below(root->child[side], node);
  return balance(root);
}

RangeNode* take_first(RangeNode* root, RangeNode** first) {
  if (root->child[0] == nullptr) {
    *first = root;
    return root->child[1];
  }
  root->child[0] = take_first(root->child[0], first);
  return balance(root);
}

RangeNode* remove_below(RangeNode* root, const RangeNode* node) {
  if (root != node) {
    int side = before(root, node) ? 1 : 0;
    root->child[side] = remove_below(root->child[side], node);
    return balance(root);
  }
  if (root->child[1] == nullptr) return root->child[0];
  RangeNode* successor = nullptr;
  RangeNode* rest = take_first(root->child[1], &successor);
  successor->child[0] = root->child[0];
  successor->child[1] = rest;
  return balance(successor);
}

}  // namespace

RangeNode* RangeSet::find(uint64_t low, uint64_t high) const {
  RangeNode* node = root_;
  while (node != nullptr && (node->low != low || node->high != high)) {
    node = node->child[std::tie(node->low, node->high) < std::tie(low, high) ? 1 : 0];
  }
  return node;
}

void RangeSet::add(RangeNode* node) {
  in_order_.push_back(node);
  root_ = insert_below(root_, node);
}

void RangeSet::remove(RangeNode* node) {
  root_ = remove_below(root_, node);
  in_order_.remove(node);
}

}  // namespace pol
