// SPDX-License-Identifier: Apache-2.0
//
// Configuration trees that are never changed, only replaced.
//
// An edit makes new nodes along the path from the root to what it changes and shares all the rest
// with the tree it began from. So a datastore is one pointer, a transaction is a copy of that
// pointer, a commit is its assignment, and two trees are compared by walking only where their
// pointers differ: what an edit of one entry costs grows with the logarithm of the list's size.
//
// Invariants
//  1. A container or list that would be empty does not exist; the root always does.
//  2. Children stand in schema order. Entries stand in key order.
//  3. All texts are canonical.
#ifndef AGENT_TREE_H
#define AGENT_TREE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/schema.h"

namespace agent {

struct Node;
struct EntryMap;
using NodeRef = std::shared_ptr<const Node>;
using MapRef = std::shared_ptr<const EntryMap>;
using Keys = std::vector<std::string>;

// One node. A list is a node of its own, whose entries are nodes with the same schema node.
struct Node {
  const SchemaNode* schema = nullptr;
  std::vector<std::string> texts;  // leaf: its value; leaf-list: its items; entry: its keys
  std::vector<NodeRef> children;   // container, entry: without the keys
  MapRef entries;                  // list
};

// A search tree of entries, ordered by keys and balanced by weight: neither half of a tree holds
// more than three times what the other does, so that no choice of keys makes it deep.
struct EntryMap {
  NodeRef entry;
  MapRef left, right;
  uint32_t count = 0;
};

// An entry on its way from one map to another; null stands for absence.
struct EntryChange {
  NodeRef before, after;
};

int compare_keys(const SchemaNode& list, const Keys& a, const Keys& b);

inline uint32_t map_count(const MapRef& map) { return map ? map->count : 0; }
NodeRef map_find(const MapRef& map, const Keys& keys);
MapRef map_put(const MapRef& map, const NodeRef& entry);  // replaces an entry with these keys
MapRef map_erase(const MapRef& map, const Keys& keys);
void map_visit(const MapRef& map, const std::function<void(const NodeRef&)>& visit);

// The map of entries given in key order, each key once; in linear time.
MapRef map_build(const std::vector<NodeRef>& entries);

// The entries in which two maps differ, in key order. Costs what the maps do not share.
std::vector<EntryChange> map_diff(const MapRef& before, const MapRef& after);

// Puts the `after` of each change, given in key order, or erases what has its keys.
MapRef map_change(const MapRef& map, const std::vector<EntryChange>& changes);

NodeRef empty_tree(const Schema& schema);
NodeRef child_of(const Node& node, const SchemaNode& schema);

// The node with `child` put in place of the one with its schema; a null `child` takes that one
// away.
NodeRef with_child(const Node& node, const SchemaNode& schema, const NodeRef& child);

NodeRef make_leaf(const SchemaNode& schema, std::vector<std::string> texts);

// One step of a path. `keys` is empty for containers, leaves and a list as a whole.
struct Step {
  const SchemaNode* schema = nullptr;
  Keys keys;
};
using Path = std::vector<Step>;

// The node at a path, null if it is absent. An empty path is the root.
NodeRef find_node(const NodeRef& root, const Path& path);

// The tree with `node` at the path (null: nothing), the containers and lists on the way made or
// dropped as needed. Entries on the way that are absent come to be, with their keys alone.
NodeRef with_node(const NodeRef& root, const Path& path, const NodeRef& node);

// Lays `addition` over `base` (same schema; either may be null): leaves replace, items of
// leaf-lists are added, entries are merged.
NodeRef merged(const NodeRef& base, const NodeRef& addition);

}  // namespace agent
#endif
