// SPDX-License-Identifier: Apache-2.0
// The ordered tree over Boost.Intrusive's AVL algorithms: Boost rebalances, the descent is ours
// because a three-way comparison finds and places a key in one pass.
#include "kel/avl.h"

#include <boost/intrusive/avltree_algorithms.hpp>
#include <cassert>

namespace {

struct NodeTraits {
  using node = avl_node;
  using node_ptr = avl_node*;
  using const_node_ptr = const avl_node*;
  using balance = int32_t;
  static node_ptr get_parent(const_node_ptr n) { return n->parent; }
  static void set_parent(node_ptr n, node_ptr p) { n->parent = p; }
  static node_ptr get_left(const_node_ptr n) { return n->child[0]; }
  static void set_left(node_ptr n, node_ptr c) { n->child[0] = c; }
  static node_ptr get_right(const_node_ptr n) { return n->child[1]; }
  static void set_right(node_ptr n, node_ptr c) { n->child[1] = c; }
  static balance get_balance(const_node_ptr n) { return n->balance; }
  static void set_balance(node_ptr n, balance b) { n->balance = b; }
  static balance negative() { return -1; }
  static balance zero() { return 0; }
  static balance positive() { return 1; }
};

using Algorithms = boost::intrusive::avltree_algorithms<NodeTraits>;

constexpr avl_index kLeft = 1;  // nodes are pointer-aligned, so the low bit of a parent is free

avl_node* header_of(const avl_tree* tree) { return const_cast<avl_node*>(&tree->header); }

void* user_node(const avl_tree* tree, avl_node* node) {
  return reinterpret_cast<char*>(node) - tree->offset;
}

avl_node* link_of(const avl_tree* tree, const void* node) {
  return reinterpret_cast<avl_node*>(const_cast<char*>(static_cast<const char*>(node)) +
                                     tree->offset);
}

}  // namespace

void avl_create(avl_tree* tree, avl_compare compare, size_t /*size*/, size_t offset) {
  Algorithms::init_header(&tree->header);
  tree->compare = compare;
  tree->offset = offset;
  tree->count = 0;
}

void* avl_find(const avl_tree* tree, const void* key, avl_index* where) {
  avl_node* parent = header_of(tree);
  avl_node* node = tree->header.parent;
  bool left = true;  // the root of an empty tree is linked as the header's left
  while (node != nullptr) {
    void* candidate = user_node(tree, node);
    int order = tree->compare(key, candidate);
    if (order == 0) return candidate;
    parent = node;
    left = order < 0;
    node = node->child[left ? 0 : 1];
  }
  if (where != nullptr) *where = reinterpret_cast<avl_index>(parent) | (left ? kLeft : 0);
  return nullptr;
}

void avl_insert(avl_tree* tree, void* node, avl_index where) {
  Algorithms::insert_commit_data place;
  place.link_left = (where & kLeft) != 0;
  place.node = reinterpret_cast<avl_node*>(where & ~kLeft);
  avl_node* link = link_of(tree, node);
  Algorithms::init(link);
  Algorithms::insert_unique_commit(&tree->header, link, place);
  ++tree->count;
}

void avl_remove(avl_tree* tree, void* node) {
  avl_node* link = link_of(tree, node);
  Algorithms::erase(&tree->header, link);
  Algorithms::init(link);
  --tree->count;
}

void* avl_first(const avl_tree* tree) {
  if (tree->header.parent == nullptr) return nullptr;
  return user_node(tree, Algorithms::begin_node(&tree->header));
}

void* avl_walk(const avl_tree* tree, const void* node, int direction) {
  avl_node* link = link_of(tree, node);
  if (direction == AVL_AFTER) {
    avl_node* next = Algorithms::next_node(link);
    return next == header_of(tree) ? nullptr : user_node(tree, next);
  }
  if (link == tree->header.child[0]) return nullptr;
  return user_node(tree, Algorithms::prev_node(link));
}

void* avl_destroy_nodes(avl_tree* tree, void** /*cookie*/) {
  avl_node* link = Algorithms::unlink_leftmost_without_rebalance(&tree->header);
  if (link == nullptr) return nullptr;
  Algorithms::init(link);
  --tree->count;
  return user_node(tree, link);
}

void avl_destroy(avl_tree* tree) {
  assert(tree->count == 0);
  Algorithms::init_header(&tree->header);
}

void avl_foreach(const avl_tree* tree, void (*visit)(void*, void*), void* arg) {
  for (void* node = avl_first(tree); node != nullptr; node = avl_walk(tree, node, AVL_AFTER)) {
    visit(node, arg);
  }
}
