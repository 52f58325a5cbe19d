// SPDX-License-Identifier: Apache-2.0
//
// Both walk only where pointers differ, and recurse as deep as the schema.
#include "agent/rebase.h"

#include "agent/keypath.h"
#include "agent/validate.h"

namespace agent {

namespace {

MapRef entries_of(const NodeRef& list) { return list ? list->entries : nullptr; }

// The list with other entries; null once it has none.
NodeRef list_of(const SchemaNode& schema, MapRef entries) {
  if (!entries) return nullptr;
  auto list = std::make_shared<Node>();
  list->schema = &schema;
  list->entries = std::move(entries);
  return list;
}

NodeRef shared_list(const NodeRef& before, const NodeRef& after) {
  std::vector<EntryChange> changes;
  for (EntryChange& change : map_diff(before->entries, after->entries)) {
    if (change.before && change.after) change.after = shared(change.before, change.after);
    if (change.before != change.after) changes.push_back(std::move(change));
  }
  if (changes.empty()) return before;
  return list_of(*before->schema, map_change(before->entries, changes));
}

struct Rebase {
  Path path;
  Faults faults;

  NodeRef node(const NodeRef& base, const NodeRef& edited, const NodeRef& target);
  NodeRef list(const NodeRef& base, const NodeRef& edited, const NodeRef& target,
               const SchemaNode& schema);
  NodeRef children(const NodeRef& base, const NodeRef& edited, const NodeRef& target,
                   const SchemaNode& schema);
};

// At least one of `base` and `edited` is there.
NodeRef Rebase::node(const NodeRef& base, const NodeRef& edited, const NodeRef& target) {
  if (edited == base) return target;
  if (target == base) return edited;
  const SchemaNode& schema = *(base ? base : edited)->schema;
  if (schema.is_leaf()) {
    bool alike = base && edited && base->texts == edited->texts;
    return alike ? target : edited;
  }
  bool is_list = schema.kind == YARROW_NODE_LIST && path.back().keys.empty();
  return is_list ? list(base, edited, target, schema) : children(base, edited, target, schema);
}

NodeRef Rebase::list(const NodeRef& base, const NodeRef& edited, const NodeRef& target,
                     const SchemaNode& schema) {
  std::vector<EntryChange> changes;
  for (const EntryChange& edit : map_diff(entries_of(base), entries_of(edited))) {
    const Keys& keys = (edit.before ? edit.before : edit.after)->texts;
    NodeRef there = map_find(entries_of(target), keys);
    path.back().keys = keys;
    NodeRef now = edit.after;
    if (edit.after && there) {
      now = node(edit.before, edit.after, there);
    } else if (edit.before && edit.after) {
      if (shared(edit.before, edit.after) != edit.before) {
        faults.add(path_text(path), "was deleted meanwhile");
      }
      now = nullptr;
    }
    path.back().keys.clear();
    if (now != there) changes.push_back({there, now});
  }
  if (changes.empty()) return target;
  return list_of(schema, map_change(entries_of(target), changes));
}

NodeRef Rebase::children(const NodeRef& base, const NodeRef& edited, const NodeRef& target,
                         const SchemaNode& schema) {
  Node nothing;
  nothing.schema = &schema;
  NodeRef result = target;
  for (const SchemaNode* child : schema.children) {
    NodeRef a = base ? child_of(*base, *child) : nullptr;
    NodeRef b = edited ? child_of(*edited, *child) : nullptr;
    if (a == b) continue;
    NodeRef there = target ? child_of(*target, *child) : nullptr;
    path.push_back({child, {}});
    NodeRef now = node(a, b, there);
    path.pop_back();
    if (now != there) result = with_child(result ? *result : nothing, *child, now);
  }
  bool vanishes = result && result->children.empty() && schema.kind == YARROW_NODE_CONTAINER &&
                  schema.parent != nullptr;
  return vanishes ? nullptr : result;
}

}  // namespace

NodeRef shared(const NodeRef& before, const NodeRef& after) {
  if (!before || !after || before == after) return after;
  if (before->schema->is_leaf()) return before->texts == after->texts ? before : after;
  if (before->entries && after->entries) return shared_list(before, after);
  auto copy = std::make_shared<Node>(*after);
  bool alike = before->texts == after->texts && before->children.size() == after->children.size();
  for (NodeRef& child : copy->children) {
    NodeRef old = child_of(*before, *child->schema);
    child = shared(old, child);
    alike = alike && child == old;
  }
  if (alike) return before;
  return copy;
}

Result rebase(const NodeRef& base, const NodeRef& edited, NodeRef* target) {
  Rebase rebase;
  NodeRef result = rebase.node(base, edited, *target);
  if (rebase.faults.count > 0) return faults_result(rebase.faults);
  *target = std::move(result);
  return {};
}

}  // namespace agent
