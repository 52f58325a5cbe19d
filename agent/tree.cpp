// SPDX-License-Identifier: Apache-2.0
#include "agent/tree.h"

#include <algorithm>

namespace agent {

namespace {

uint32_t hash_keys(const Keys& keys) {
  uint32_t hash = 2166136261u;
  for (const std::string& key : keys) {
    for (char byte : key) hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
    hash = (hash ^ 0xffu) * 16777619u;
  }
  hash ^=
      hash >> 16;  // FNV's high bits barely move on short texts; the order of priorities needs them
  hash *= 0x7feb352du;
  hash ^= hash >> 15;
  hash *= 0x846ca68bu;
  return hash ^ hash >> 16;
}

int compare_entries(const Node& a, const Keys& keys) {
  return compare_keys(*a.schema, a.texts, keys);
}

// Whether `a` stands above `b`; keys settle equal priorities, so that the shape stays unique.
bool above(const EntryMap& a, uint32_t priority, const Keys& keys) {
  if (a.priority != priority) return a.priority > priority;
  return compare_entries(*a.entry, keys) <= 0;
}

MapRef join(const NodeRef& entry, uint32_t priority, MapRef left, MapRef right) {
  auto map = std::make_shared<EntryMap>();
  map->count = map_count(left) + map_count(right) + 1;
  map->entry = entry;
  map->priority = priority;
  map->left = std::move(left);
  map->right = std::move(right);
  return map;
}

struct Halves {
  MapRef left, right;
  NodeRef middle;
};

Halves split(const MapRef& map, const Keys& keys) {
  if (!map) return {};
  int order = compare_entries(*map->entry, keys);
  if (order == 0) return {map->left, map->right, map->entry};
  if (order < 0) {
    Halves halves = split(map->right, keys);
    if (halves.right == nullptr && halves.middle == nullptr) return {map, nullptr, nullptr};
    halves.left = join(map->entry, map->priority, map->left, halves.left);
    return halves;
  }
  Halves halves = split(map->left, keys);
  if (halves.left == nullptr && halves.middle == nullptr) return {nullptr, map, nullptr};
  halves.right = join(map->entry, map->priority, halves.right, map->right);
  return halves;
}

MapRef merge_maps(const MapRef& left, const MapRef& right) {
  if (!left) return right;
  if (!right) return left;
  if (above(*left, right->priority, right->entry->texts)) {
    return join(left->entry, left->priority, left->left, merge_maps(left->right, right));
  }
  return join(right->entry, right->priority, merge_maps(left, right->left), right->right);
}

MapRef put(const MapRef& map, const NodeRef& entry, uint32_t priority) {
  if (!map) return join(entry, priority, nullptr, nullptr);
  int order = compare_entries(*map->entry, entry->texts);
  if (order == 0) {
    if (map->entry == entry) return map;
    return join(entry, priority, map->left, map->right);
  }
  if (!above(*map, priority, entry->texts)) {
    Halves halves = split(map, entry->texts);
    return join(entry, priority, halves.left, halves.right);
  }
  if (order < 0)
    return join(map->entry, map->priority, map->left, put(map->right, entry, priority));
  return join(map->entry, map->priority, put(map->left, entry, priority), map->right);
}

}  // namespace

int compare_keys(const SchemaNode& list, const Keys& a, const Keys& b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (list.children[i]->numeric_key && a[i].size() != b[i].size()) {
      return a[i].size() < b[i].size() ? -1 : 1;
    }
    if (int order = a[i].compare(b[i]); order != 0) return order;
  }
  return 0;
}

NodeRef map_find(const MapRef& map, const Keys& keys) {
  for (const EntryMap* at = map.get(); at != nullptr;) {
    int order = compare_entries(*at->entry, keys);
    if (order == 0) return at->entry;
    at = order < 0 ? at->right.get() : at->left.get();
  }
  return nullptr;
}

MapRef map_put(const MapRef& map, const NodeRef& entry) {
  return put(map, entry, hash_keys(entry->texts));
}

MapRef map_erase(const MapRef& map, const Keys& keys) {
  if (!map) return nullptr;
  int order = compare_entries(*map->entry, keys);
  if (order == 0) return merge_maps(map->left, map->right);
  if (order < 0) {
    MapRef right = map_erase(map->right, keys);
    return right == map->right ? map : join(map->entry, map->priority, map->left, right);
  }
  MapRef left = map_erase(map->left, keys);
  return left == map->left ? map : join(map->entry, map->priority, left, map->right);
}

void map_visit(const MapRef& map, const std::function<void(const NodeRef&)>& visit) {
  if (!map) return;
  map_visit(map->left, visit);
  visit(map->entry);
  map_visit(map->right, visit);
}

void map_diff(const MapRef& before, const MapRef& after,
              const std::function<void(const NodeRef&, const NodeRef&)>& visit) {
  if (before == after) return;
  if (!after) {
    map_visit(before, [&](const NodeRef& entry) { visit(entry, nullptr); });
    return;
  }
  if (!before) {
    map_visit(after, [&](const NodeRef& entry) { visit(nullptr, entry); });
    return;
  }
  if (compare_entries(*before->entry, after->entry->texts) == 0) {
    map_diff(before->left, after->left, visit);
    if (before->entry != after->entry) visit(before->entry, after->entry);
    map_diff(before->right, after->right, visit);
  } else if (above(*before, after->priority, after->entry->texts)) {
    // The root of `before` stands above every entry of `after`: it is not among them.
    Halves halves = split(after, before->entry->texts);
    map_diff(before->left, halves.left, visit);
    visit(before->entry, halves.middle);
    map_diff(before->right, halves.right, visit);
  } else {
    Halves halves = split(before, after->entry->texts);
    map_diff(halves.left, after->left, visit);
    visit(halves.middle, after->entry);
    map_diff(halves.right, after->right, visit);
  }
}

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
    map_visit(addition->entries, [&](const NodeRef& entry) {
      NodeRef old = map_find(copy->entries, entry->texts);
      copy->entries = map_put(copy->entries, merged(old, entry));
    });
    return copy->entries == base->entries ? base : copy;
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
