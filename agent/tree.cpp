// SPDX-License-Identifier: Apache-2.0
#include "agent/tree.h"

#include <algorithm>

namespace agent {

NodeRef empty_tree(const Schema& schema) {
  auto root = std::make_shared<Node>();
  root->schema = &schema.root;
  return root;
}

NodeRef child_of(const Node& node, const SchemaNode& schema) {
  for (const NodeRef& child : node.children) {
    if (child->schema == &schema) return child;
  }
  return nullptr;
}

NodeRef with_child(const Node& node, const SchemaNode& schema, const NodeRef& child) {
  auto copy = std::make_shared<Node>(node);
  auto at = std::lower_bound(
      copy->children.begin(), copy->children.end(), schema.index,
      [](const NodeRef& other, uint32_t index) { return other->schema->index < index; });
  bool there = at != copy->children.end() && (*at)->schema == &schema;
  if (there && child) {
    *at = child;
  } else if (there) {
    copy->children.erase(at);
  } else if (child) {
    copy->children.insert(at, child);
  }
  return copy;
}

NodeRef make_leaf(const SchemaNode& schema, std::vector<std::string> texts) {
  auto leaf = std::make_shared<Node>();
  leaf->schema = &schema;
  leaf->texts = std::move(texts);
  return leaf;
}

NodeRef find_node(const NodeRef& root, const Path& path) {
  NodeRef at = root;
  for (const Step& step : path) {
    at = child_of(*at, *step.schema);
    if (at && !step.keys.empty()) at = map_find(at->entries, step.keys);
    if (!at) return nullptr;
  }
  return at;
}

namespace {

NodeRef replaced(const NodeRef& base, const SchemaNode& parent, const Path& path, size_t depth,
                 const NodeRef& node);

// The list with the entry of the step replaced; null once it is empty.
NodeRef replaced_entry(const NodeRef& list, const Path& path, size_t depth, const NodeRef& node) {
  const Step& step = path[depth];
  NodeRef entry;
  if (depth + 1 == path.size()) {
    entry = node;
  } else {
    NodeRef old = list ? map_find(list->entries, step.keys) : nullptr;
    if (!old) {
      if (!node) return list;
      auto fresh = std::make_shared<Node>();
      fresh->schema = step.schema;
      fresh->texts = step.keys;
      old = fresh;
    }
    entry = replaced(old, *step.schema, path, depth + 1, node);
  }
  auto copy = std::make_shared<Node>();
  copy->schema = step.schema;
  copy->entries = list ? list->entries : nullptr;
  copy->entries = entry ? map_put(copy->entries, entry) : map_erase(copy->entries, step.keys);
  return copy->entries ? copy : nullptr;
}

NodeRef replaced(const NodeRef& base, const SchemaNode& parent, const Path& path, size_t depth,
                 const NodeRef& node) {
  const Step& step = path[depth];
  NodeRef old = base ? child_of(*base, *step.schema) : nullptr;
  NodeRef child;
  if (!step.keys.empty()) {
    child = replaced_entry(old, path, depth, node);
  } else if (depth + 1 == path.size()) {
    child = node;
  } else {
    child = replaced(old, *step.schema, path, depth + 1, node);
  }
  if (child == old) return base;
  Node nothing;
  nothing.schema = &parent;
  NodeRef copy = with_child(base ? *base : nothing, *step.schema, child);
  bool vanishes = copy->children.empty() && parent.kind == YARROW_NODE_CONTAINER && parent.parent;
  return vanishes ? nullptr : copy;
}

}  // namespace

NodeRef with_node(const NodeRef& root, const Path& path, const NodeRef& node) {
  if (path.empty()) return node ? node : root;
  return replaced(root, *root->schema, path, 0, node);
}

NodeRef merged(const NodeRef& base, const NodeRef& addition) {
  if (!base || !addition || base == addition) return addition ? addition : base;
  const SchemaNode& schema = *base->schema;
  if (schema.kind == YARROW_NODE_LEAF) return base->texts == addition->texts ? base : addition;
  auto copy = std::make_shared<Node>(*base);
  if (schema.kind == YARROW_NODE_LEAF_LIST) {
    for (const std::string& item : addition->texts) {
      if (std::find(copy->texts.begin(), copy->texts.end(), item) == copy->texts.end()) {
        copy->texts.push_back(item);
      }
    }
    return copy->texts.size() == base->texts.size() ? base : copy;
  }
  if (addition->entries) {
    std::vector<EntryChange> changes;
    map_visit(addition->entries, [&](const NodeRef& entry) {
      NodeRef old = map_find(base->entries, entry->texts);
      NodeRef now = merged(old, entry);
      if (now != old) changes.push_back({old, now});
    });
    copy->entries = map_change(base->entries, changes);
    return changes.empty() ? base : copy;
  }
  NodeRef result = base;
  for (const NodeRef& child : addition->children) {
    NodeRef old = child_of(*result, *child->schema);
    NodeRef now = merged(old, child);
    if (now != old) result = with_child(*result, *child->schema, now);
  }
  return result;
}

}  // namespace agent
