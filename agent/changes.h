// SPDX-License-Identifier: Apache-2.0
//
// The difference of two trees, as subscribers are told it, as validation visits it, and as the
// journal keeps it.
#ifndef AGENT_CHANGES_H
#define AGENT_CHANGES_H

#include <string>
#include <string_view>
#include <vector>

#include "agent/result.h"
#include "agent/tree.h"
#include "platform/yarrow/wire.h"

namespace agent {

// A changed leaf, or the begin or end of a container around changed leaves.
struct LeafChange {
  enum class Kind : uint8_t { kLeaf, kBegin, kEnd };
  Kind kind = Kind::kLeaf;
  const SchemaNode* schema = nullptr;
  NodeRef leaf;  // null: removed
};

struct Change {
  const SchemaNode* schema = nullptr;  // the list; for YARROW_VALUE_SET the leaf
  t_yarrow_op op = YARROW_MODIFIED;
  std::vector<Keys> keys;  // of each list on the path, outermost first
  std::vector<LeafChange> leaves;
  NodeRef entry;  // as it is now; null when deleted
};

// Appends what turns `before` into `after`, in the order in which it is to be told: parents before
// members, schema order among siblings, key order in a list. An entry in which only members changed
// is there too, without leaves.
void changes_between(const NodeRef& before, const NodeRef& after, std::vector<Change>* changes);

// The tree with the changes made. Changes that another tree gave rise to land by path: entries they
// modify come to be if they are missing.
NodeRef changes_apply(NodeRef root, const std::vector<Change>& changes);

// The path of a change, with keys.
Path change_path(const Change& change);

// The journal's form.
void changes_write(const std::vector<Change>& changes, yarrow::Writer& out);
Result changes_read(const Schema& schema, yarrow::Reader& in, std::vector<Change>* changes);

// The subscribers' form of one change, with typed values.
void change_encode(const Change& change, yarrow::Writer& out);

}  // namespace agent
#endif
