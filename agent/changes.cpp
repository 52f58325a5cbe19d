// SPDX-License-Identifier: Apache-2.0
#include "agent/changes.h"

#include <algorithm>
#include <span>

#include "agent/keypath.h"
#include "agent/values.h"

namespace agent {

namespace {

struct Differ {
  std::vector<Change>* changes;
  std::vector<Keys> keys;

  void own_leaves(const Node* before, const Node* after, std::vector<LeafChange>* leaves);
  void lists_in(const Node* before, const Node* after);
  void list(const Node* before, const Node* after, const SchemaNode& schema);
  void entry(const NodeRef& before, const NodeRef& after, const SchemaNode& schema);
};

// Walks the children of both nodes in schema order, in pairs, skipping what they share.
template <typename Visit>
void pairs(const Node* before, const Node* after, const Visit& visit) {
  static const std::vector<NodeRef> none;
  const std::vector<NodeRef>& old_children = before != nullptr ? before->children : none;
  const std::vector<NodeRef>& new_children = after != nullptr ? after->children : none;
  size_t i = 0;
  size_t j = 0;
  while (i < old_children.size() || j < new_children.size()) {
    const NodeRef nothing;
    bool has_old = i < old_children.size();
    bool has_new = j < new_children.size();
    uint32_t old_index = has_old ? old_children[i]->schema->index : UINT32_MAX;
    uint32_t new_index = has_new ? new_children[j]->schema->index : UINT32_MAX;
    const NodeRef& a = old_index <= new_index ? old_children[i++] : nothing;
    const NodeRef& b = new_index <= old_index ? new_children[j++] : nothing;
    if (a != b) visit(a, b, *(a ? a : b)->schema);
  }
}

void Differ::own_leaves(const Node* before, const Node* after, std::vector<LeafChange>* leaves) {
  pairs(before, after, [&](const NodeRef& a, const NodeRef& b, const SchemaNode& schema) {
    if (schema.is_leaf()) {
      if (a && b && a->texts == b->texts) return;
      leaves->push_back({LeafChange::Kind::kLeaf, &schema, b});
    } else if (schema.kind == YARROW_NODE_CONTAINER) {
      size_t mark = leaves->size();
      leaves->push_back({LeafChange::Kind::kBegin, &schema, nullptr});
      own_leaves(a.get(), b.get(), leaves);
      if (leaves->size() == mark + 1) {
        leaves->pop_back();
      } else {
        leaves->push_back({LeafChange::Kind::kEnd, &schema, nullptr});
      }
    }
  });
}

void Differ::lists_in(const Node* before, const Node* after) {
  pairs(before, after, [&](const NodeRef& a, const NodeRef& b, const SchemaNode& schema) {
    if (schema.kind == YARROW_NODE_LIST) {
      list(a.get(), b.get(), schema);
    } else if (schema.kind == YARROW_NODE_CONTAINER) {
      lists_in(a.get(), b.get());
    } else if (schema.level == 0 && !(a && b && a->texts == b->texts)) {
      changes->push_back({&schema, YARROW_VALUE_SET, {}, {}, nullptr});
      changes->back().leaves.push_back({LeafChange::Kind::kLeaf, &schema, b});
    }
  });
}

void Differ::list(const Node* before, const Node* after, const SchemaNode& schema) {
  const MapRef old_entries = before != nullptr ? before->entries : nullptr;
  const MapRef new_entries = after != nullptr ? after->entries : nullptr;
  const std::vector<EntryChange> differing = map_diff(old_entries, new_entries);
  for (const EntryChange& one : differing) {
    if (!one.after) entry(one.before, one.after, schema);
  }
  for (const EntryChange& one : differing) {
    if (one.after) entry(one.before, one.after, schema);
  }
}

void Differ::entry(const NodeRef& before, const NodeRef& after, const SchemaNode& schema) {
  keys.push_back((after ? after : before)->texts);
  size_t mark = changes->size();
  t_yarrow_op op = !before ? YARROW_CREATED : !after ? YARROW_DELETED : YARROW_MODIFIED;
  changes->push_back({&schema, op, keys, {}, after});
  if (after) {
    own_leaves(before.get(), after.get(), &changes->back().leaves);
    lists_in(before.get(), after.get());
    // Equal contents in different nodes are no change.
    bool same =
        op == YARROW_MODIFIED && changes->size() == mark + 1 && changes->back().leaves.empty();
    if (same) changes->pop_back();
  }
  keys.pop_back();
}

// The steps from the nearest list entry (or the root) down to a node.
Path steps_below(const SchemaNode* top, const SchemaNode* node) {
  Path steps;
  for (; node != top && node->parent != nullptr; node = node->parent) {
    steps.insert(steps.begin(), Step{node, {}});
  }
  return steps;
}

// A change without its entry's leaves says nothing that its members do not say.
bool is_mere_passage(const Change& change) {
  return change.op == YARROW_MODIFIED && change.leaves.empty();
}

}  // namespace

void changes_between(const NodeRef& before, const NodeRef& after, std::vector<Change>* changes) {
  if (before == after) return;
  Differ differ{changes, {}};
  differ.lists_in(before.get(), after.get());
}

Path change_path(const Change& change) {
  Path path = steps_below(nullptr, change.schema);
  size_t next = 0;
  for (Step& step : path) {
    if (step.schema->kind == YARROW_NODE_LIST && next < change.keys.size()) {
      step.keys = change.keys[next++];
    }
  }
  return path;
}

namespace {

// The entry with a change's leaves laid over what it was; null where it goes.
NodeRef changed_entry(const NodeRef& before, const Change& change) {
  if (change.op == YARROW_DELETED) return nullptr;
  NodeRef entry = before;
  if (!entry) {
    auto fresh = std::make_shared<Node>();
    fresh->schema = change.schema;
    fresh->texts = change.keys.back();
    entry = fresh;
  }
  for (const LeafChange& leaf : change.leaves) {
    if (leaf.kind != LeafChange::Kind::kLeaf) continue;
    entry = with_node(entry, steps_below(change.schema, leaf.schema), leaf.leaf);
  }
  return entry;
}

// Whether `next` is of an entry of the same list, further on in it.
bool follows_in_list(const Change& change, const Change& next) {
  return next.schema == change.schema && next.op != YARROW_VALUE_SET &&
         std::equal(next.keys.begin(), next.keys.end() - 1, change.keys.begin(),
                    change.keys.end() - 1) &&
         compare_keys(*change.schema, change.keys.back(), next.keys.back()) < 0;
}

// Changes of entries of one list, in key order, are laid into its map at once: a base, which is
// little else, is built as fast as it is read.
NodeRef entries_apply(const NodeRef& root, std::span<const Change> changes) {
  Path path = change_path(changes.front());
  path.back().keys.clear();
  const NodeRef list = find_node(root, path);
  std::vector<EntryChange> laid;
  laid.reserve(changes.size());
  for (const Change& change : changes) {
    if (is_mere_passage(change)) continue;
    const NodeRef before = list ? map_find(list->entries, change.keys.back()) : nullptr;
    const NodeRef after = changed_entry(before, change);
    if (before != after) laid.push_back({before, after});
  }
  if (laid.empty()) return root;
  auto made = std::make_shared<Node>();
  made->schema = changes.front().schema;
  made->entries = map_change(list ? list->entries : nullptr, laid);
  return with_node(root, path, made->entries ? made : nullptr);
}

}  // namespace

NodeRef changes_apply(NodeRef root, const std::vector<Change>& changes) {
  for (size_t i = 0; i < changes.size();) {
    const size_t first = i++;
    const Change& change = changes[first];
    if (change.op == YARROW_VALUE_SET) {
      for (const LeafChange& leaf : change.leaves) {
        root = with_node(root, change_path(change), leaf.leaf);
      }
      continue;
    }
    while (i < changes.size() && follows_in_list(changes[i - 1], changes[i])) ++i;
    root = entries_apply(root, std::span(changes).subspan(first, i - first));
  }
  return root;
}

void changes_write(const std::vector<Change>& changes, yarrow::Writer& out) {
  size_t count_at = out.size();
  uint32_t count = 0;
  out.u32(0);
  for (const Change& change : changes) {
    if (is_mere_passage(change)) continue;
    ++count;
    out.u8(static_cast<uint8_t>(change.op));
    out.text(path_text(change_path(change)));
    size_t leaves_at = out.size();
    uint32_t leaves = 0;
    out.u32(0);
    for (const LeafChange& leaf : change.leaves) {
      if (leaf.kind != LeafChange::Kind::kLeaf) continue;
      ++leaves;
      const SchemaNode* top = change.op == YARROW_VALUE_SET ? nullptr : change.schema;
      std::string below;
      for (const Step& step : steps_below(top, leaf.schema)) path_append(below, *step.schema, {});
      out.text(below);
      out.u8(leaf.leaf ? 1 : 0);
      if (!leaf.leaf) continue;
      out.u32(static_cast<uint32_t>(leaf.leaf->texts.size()));
      for (const std::string& text : leaf.leaf->texts) out.text(text);
    }
    out.patch_u32(leaves_at, leaves);
  }
  out.patch_u32(count_at, count);
}

namespace {

// The leaf at "/container/.../leaf" below an entry, or below the root; null for a key, for state
// data, and for what lies in another list.
const SchemaNode* leaf_below(const SchemaNode& top, std::string_view below) {
  const SchemaNode* node = &top;
  while (below.starts_with('/')) {
    if (node != &top && node->kind != YARROW_NODE_CONTAINER) return nullptr;
    size_t end = std::min(below.find('/', 1), below.size());
    node = schema_child(*node, below.substr(1, end - 1));
    if (node == nullptr) return nullptr;
    below.remove_prefix(end);
  }
  bool good = below.empty() && node->is_leaf() && !node->is_key && !node->is_state;
  return good ? node : nullptr;
}

Result read_leaf(const Schema& schema, yarrow::Reader& in, const SchemaNode& top, Change* change) {
  std::string below(in.text(yarrow::kMaxPath));
  const SchemaNode* node = leaf_below(top, below);
  if (!in.ok() || node == nullptr) {
    return failed(YARROW_ERR_MALFORMED, top.path + below + ": no such leaf");
  }
  NodeRef leaf;
  if (in.u8() != 0) {
    uint32_t count = in.u32();
    uint32_t most = node->kind == YARROW_NODE_LEAF ? 1 : yarrow::kMaxLeafListItems;
    if (count < 1 || count > most) {
      return failed(YARROW_ERR_MALFORMED, node->path + ": not as many values as it has");
    }
    std::vector<std::string> texts;
    for (uint32_t i = 0; i < count && in.ok(); ++i) {
      std::string canonical;
      std::string reason;
      if (!schema_canonical(schema, *node, in.text(), &canonical, &reason)) {
        return failed(YARROW_ERR_MALFORMED, node->path + ": " + reason);
      }
      texts.push_back(std::move(canonical));
    }
    leaf = make_leaf(*node, std::move(texts));
  }
  change->leaves.push_back({LeafChange::Kind::kLeaf, node, leaf});
  return in.ok() ? Result{} : failed(YARROW_ERR_MALFORMED, "a record cut short");
}

}  // namespace

Result changes_read(const Schema& schema, yarrow::Reader& in, std::vector<Change>* changes) {
  uint32_t count = in.u32();
  for (uint32_t i = 0; i < count; ++i) {
    Change change;
    uint8_t op = in.u8();
    std::string_view text = in.text(yarrow::kMaxPath);
    if (!in.ok()) return failed(YARROW_ERR_MALFORMED, "a record cut short");
    Path path;
    Result result = path_parse(schema, text, &path);
    if (!result.ok()) return result;
    bool fits = op >= YARROW_CREATED && op <= YARROW_VALUE_SET && !path.empty() &&
                !path.back().schema->is_state;
    if (fits && op == YARROW_VALUE_SET) fits = path.back().schema->is_leaf();
    if (fits && op != YARROW_VALUE_SET) fits = !path.back().keys.empty();
    if (!fits) return failed(YARROW_ERR_MALFORMED, std::string(text) + ": not a change");
    change.op = static_cast<t_yarrow_op>(op);
    change.schema = path.back().schema;
    for (Step& step : path) {
      if (!step.keys.empty()) change.keys.push_back(std::move(step.keys));
    }
    const SchemaNode& top = op == YARROW_VALUE_SET ? schema.root : *change.schema;
    uint32_t leaves = in.u32();
    for (uint32_t j = 0; j < leaves; ++j) {
      result = read_leaf(schema, in, top, &change);
      if (!result.ok()) return result;
      if (op == YARROW_VALUE_SET && change.leaves.back().schema != change.schema) {
        return failed(YARROW_ERR_MALFORMED, std::string(text) + ": another leaf's value");
      }
    }
    changes->push_back(std::move(change));
  }
  return in.ok() ? Result{} : failed(YARROW_ERR_MALFORMED, "a record cut short");
}

void change_encode(const Change& change, yarrow::Writer& out) {
  out.text(change.schema->path);
  out.u8(static_cast<uint8_t>(change.op));
  out.u8(static_cast<uint8_t>(change.schema->level));
  size_t count_at = out.size();
  uint32_t count = 0;
  out.u32(0);
  Path path = change_path(change);
  for (const Step& step : path) {
    for (size_t i = 0; i < step.keys.size(); ++i, ++count) {
      value_encode(*step.schema->children[i], step.keys[i], out);
    }
  }
  out.patch_u32(count_at, count);
  out.u32(static_cast<uint32_t>(change.leaves.size()));
  for (const LeafChange& leaf : change.leaves) {
    out.u32(leaf.schema->tag);
    out.u32(leaf.schema->ns_tag);
    if (leaf.kind == LeafChange::Kind::kBegin) {
      out.u32(C_XMLBEGIN);
    } else if (leaf.kind == LeafChange::Kind::kEnd) {
      out.u32(C_XMLEND);
    } else if (!leaf.leaf && leaf.schema->has_default) {
      value_encode(*leaf.schema, leaf.schema->default_text, out);
    } else if (!leaf.leaf) {
      out.u32(C_NOEXISTS);
    } else if (leaf.schema->kind == YARROW_NODE_LEAF_LIST) {
      out.u32(C_LIST);
      out.u32(static_cast<uint32_t>(leaf.leaf->texts.size()));
      for (const std::string& text : leaf.leaf->texts) value_encode(*leaf.schema, text, out);
    } else {
      value_encode(*leaf.schema, leaf.leaf->texts[0], out);
    }
  }
}

}  // namespace agent
