// SPDX-License-Identifier: Apache-2.0
//
// The map of a list's entries. Every function but the walks recurses as deep as the tree, which is
// logarithmic in its entries, whatever their keys.
#include "agent/tree.h"

namespace agent {

namespace {

// A pair of constants for which insertion, removal and rotation keep the balance.
constexpr uint32_t kMaxWeight = 3;     // one half to the other
constexpr uint32_t kSingleWeight = 2;  // inner to outer quarter, up to which one rotation is enough

// From this share of a map on, it is cheaper to make it anew than to change it entry by entry.
constexpr size_t kRebuildShare = 8;

int compare_entries(const Node& a, const Keys& keys) {
  return compare_keys(*a.schema, a.texts, keys);
}

MapRef join(const NodeRef& entry, MapRef left, MapRef right) {
  auto map = std::make_shared<EntryMap>();
  map->count = map_count(left) + map_count(right) + 1;
  map->entry = entry;
  map->left = std::move(left);
  map->right = std::move(right);
  return map;
}

// Joins halves that came out of balance by one entry put or erased.
MapRef balanced(const NodeRef& entry, const MapRef& left, const MapRef& right) {
  uint32_t on_left = map_count(left);
  uint32_t on_right = map_count(right);
  if (on_left + on_right < 2) return join(entry, left, right);
  if (on_right > kMaxWeight * on_left) {
    const MapRef& inner = right->left;
    if (map_count(inner) < kSingleWeight * map_count(right->right)) {
      return join(right->entry, join(entry, left, inner), right->right);
    }
    return join(inner->entry, join(entry, left, inner->left),
                join(right->entry, inner->right, right->right));
  }
  if (on_left > kMaxWeight * on_right) {
    const MapRef& inner = left->right;
    if (map_count(inner) < kSingleWeight * map_count(left->left)) {
      return join(left->entry, left->left, join(entry, inner, right));
    }
    return join(inner->entry, join(left->entry, left->left, inner->left),
                join(entry, inner->right, right));
  }
  return join(entry, left, right);
}

MapRef without_first(const MapRef& map, NodeRef* first) {
  if (!map->left) {
    *first = map->entry;
    return map->right;
  }
  MapRef left = without_first(map->left, first);
  return balanced(map->entry, left, map->right);
}

MapRef build(const NodeRef* first, size_t count) {
  if (count == 0) return nullptr;
  size_t half = count / 2;
  return join(first[half], build(first, half), build(first + half + 1, count - half - 1));
}

// What is left to visit of a map in key order, the next on top: whole subtrees, and entries whose
// left subtree is done.
struct Rest {
  const EntryMap* map;
  bool whole;
};

void open_top(std::vector<Rest>& rest) {
  const EntryMap* map = rest.back().map;
  rest.pop_back();
  if (map->right) rest.push_back({map->right.get(), true});
  rest.push_back({map, false});
  if (map->left) rest.push_back({map->left.get(), true});
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
  if (!map) return join(entry, nullptr, nullptr);
  int order = compare_entries(*map->entry, entry->texts);
  if (order == 0) return map->entry == entry ? map : join(entry, map->left, map->right);
  if (order < 0) return balanced(map->entry, map->left, map_put(map->right, entry));
  return balanced(map->entry, map_put(map->left, entry), map->right);
}

MapRef map_erase(const MapRef& map, const Keys& keys) {
  if (!map) return nullptr;
  int order = compare_entries(*map->entry, keys);
  if (order < 0) {
    MapRef right = map_erase(map->right, keys);
    return right == map->right ? map : balanced(map->entry, map->left, right);
  }
  if (order > 0) {
    MapRef left = map_erase(map->left, keys);
    return left == map->left ? map : balanced(map->entry, left, map->right);
  }
  if (!map->right) return map->left;
  NodeRef next;
  MapRef right = without_first(map->right, &next);
  return balanced(next, map->left, right);
}

void map_visit(const MapRef& map, const std::function<void(const NodeRef&)>& visit) {
  if (!map) return;
  map_visit(map->left, visit);
  visit(map->entry);
  map_visit(map->right, visit);
}

MapRef map_build(const std::vector<NodeRef>& entries) {
  return build(entries.data(), entries.size());
}

std::vector<EntryChange> map_diff(const MapRef& before, const MapRef& after) {
  std::vector<EntryChange> changes;
  std::vector<Rest> old_rest;
  std::vector<Rest> new_rest;
  if (before) old_rest.push_back({before.get(), true});
  if (after) new_rest.push_back({after.get(), true});
  while (!old_rest.empty() || !new_rest.empty()) {
    bool old_whole = !old_rest.empty() && old_rest.back().whole;
    bool new_whole = !new_rest.empty() && new_rest.back().whole;
    if (old_whole && new_whole && old_rest.back().map == new_rest.back().map) {
      old_rest.pop_back();
      new_rest.pop_back();
      continue;
    }
    // The larger one first: what both share then comes to both tops at once.
    if (old_whole && (!new_whole || old_rest.back().map->count > new_rest.back().map->count)) {
      open_top(old_rest);
      continue;
    }
    if (new_whole) {
      open_top(new_rest);
      continue;
    }
    // Both tops are entries, or one walk is over.
    const NodeRef a = old_rest.empty() ? nullptr : old_rest.back().map->entry;
    const NodeRef b = new_rest.empty() ? nullptr : new_rest.back().map->entry;
    int order = !a ? 1 : -1;
    if (a && b) order = compare_entries(*a, b->texts);
    if (order <= 0) old_rest.pop_back();
    if (order >= 0) new_rest.pop_back();
    if (a != b) changes.push_back({order <= 0 ? a : nullptr, order >= 0 ? b : nullptr});
  }
  return changes;
}

MapRef map_change(const MapRef& map, const std::vector<EntryChange>& changes) {
  if (changes.size() * kRebuildShare < map_count(map)) {
    MapRef result = map;
    for (const EntryChange& change : changes) {
      result =
          change.after ? map_put(result, change.after) : map_erase(result, change.before->texts);
    }
    return result;
  }
  std::vector<NodeRef> entries;
  entries.reserve(map_count(map) + changes.size());
  auto next = changes.begin();
  auto take_next = [&] {
    if (next->after) entries.push_back(next->after);
    ++next;
  };
  map_visit(map, [&](const NodeRef& entry) {
    int order = 1;
    while (next != changes.end()) {
      order = compare_entries(*entry, (next->after ? next->after : next->before)->texts);
      if (order <= 0) break;
      take_next();
    }
    if (next != changes.end() && order == 0) {
      take_next();
    } else {
      entries.push_back(entry);
    }
  });
  while (next != changes.end()) take_next();
  return map_build(entries);
}

}  // namespace agent
