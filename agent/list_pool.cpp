// SPDX-License-Identifier: Apache-2.0
#include "agent/list_pool.h"

#include "agent/rebase.h"

namespace agent {

namespace {

constexpr uint32_t kLongList = 64;
constexpr int kMaxTries = 4;  // lists of one hash that are looked at

void mix(uint64_t* hash, uint64_t value) {
  *hash = (*hash ^ value) * 0x9e3779b97f4a7c15u;
  *hash ^= *hash >> 32;
}

void mix_node(uint64_t* hash, const Node& node) {
  mix(hash, reinterpret_cast<uintptr_t>(node.schema));
  for (const std::string& text : node.texts) mix(hash, std::hash<std::string>()(text));
  for (const NodeRef& child : node.children) mix_node(hash, *child);
  map_visit(node.entries, [&](const NodeRef& entry) { mix_node(hash, *entry); });
}

NodeRef pooled_list(ListPool& pool, const NodeRef& list) {
  if (map_count(list->entries) < kLongList) return list;
  uint64_t hash = 0;
  mix_node(&hash, *list);
  auto [first, last] = pool.lists.equal_range(hash);
  for (int tries = 0; first != last && tries < kMaxTries; ++first, ++tries) {
    NodeRef known = first->second.lock();
    if (known && known->schema == list->schema && shared(known, list) == known) return known;
  }
  pool.lists.emplace(hash, list);
  return list;
}

NodeRef share(ListPool& pool, const NodeRef& before, const NodeRef& after) {
  if (before == after || !after || after->schema->is_leaf()) return after;
  if (after->entries) {
    std::vector<EntryChange> changes;
    for (const EntryChange& one : map_diff(before ? before->entries : nullptr, after->entries)) {
      NodeRef now = share(pool, one.before, one.after);
      if (now != one.after) changes.push_back({one.after, now});
    }
    if (changes.empty()) return pooled_list(pool, after);
    auto list = std::make_shared<Node>(*after);
    list->entries = map_change(after->entries, changes);
    return pooled_list(pool, list);
  }
  NodeRef result = after;
  for (const NodeRef& child : after->children) {
    NodeRef now = share(pool, before ? child_of(*before, *child->schema) : nullptr, child);
    if (now != child) result = with_child(*result, *child->schema, now);
  }
  return result;
}

}  // namespace

NodeRef pooled(ListPool& pool, const NodeRef& before, const NodeRef& after) {
  std::erase_if(pool.lists, [](const auto& one) { return one.second.expired(); });
  return share(pool, before, after);
}

}  // namespace agent
