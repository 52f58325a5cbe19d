// SPDX-License-Identifier: Apache-2.0
#include "agent/validate.h"

#include <libyang/libyang.h>

#include <unordered_set>

#include "agent/keypath.h"

namespace agent {

namespace {

void check_mandatory(const SchemaNode& schema, const Node* node, const std::string& path,
                     Faults& faults) {
  for (const SchemaNode* child : schema.children) {
    if (!child->constrained || child->kind == YARROW_NODE_LIST) continue;
    NodeRef there = node != nullptr ? child_of(*node, *child) : nullptr;
    if (child->mandatory && !there) faults.add(path + "/" + child->name, "is missing");
    if (child->kind == YARROW_NODE_CONTAINER) {
      check_mandatory(*child, there.get(), path + "/" + child->name, faults);
    }
  }
}

lyd_node* new_inner(lyd_node* parent, const SchemaNode& schema) {
  lyd_node* made = nullptr;
  lyd_new_inner(parent, schema.yang->module, schema.name.c_str(), 0, &made);
  return made;
}

lyd_node* new_entry(lyd_node* parent, const SchemaNode& list, const Keys& keys) {
  const char* values[kMaxKeys] = {};
  for (size_t i = 0; i < keys.size(); ++i) values[i] = keys[i].c_str();
  lyd_node* made = nullptr;
  // The call takes as many values as the list has keys.
  lyd_new_list(parent, list.yang->module, list.name.c_str(), 0, &made, values[0], values[1],
               values[2], values[3]);
  return made;
}

void copy_leaves(const Node& from, lyd_node* to) {
  for (const NodeRef& child : from.children) {
    const SchemaNode& schema = *child->schema;
    if (schema.is_leaf()) {
      for (const std::string& text : child->texts) {
        lyd_new_term(to, schema.yang->module, schema.name.c_str(), text.c_str(), 0, nullptr);
      }
    } else if (schema.kind == YARROW_NODE_CONTAINER) {
      if (lyd_node* made = new_inner(to, schema)) copy_leaves(*child, made);
    }
  }
}

// Conditions of a node present in the data.
void check_musts(const Schema& schema, const lyd_node* node, const std::string& path,
                 Faults& faults) {
  const lysc_must* musts = lysc_node_musts(node->schema);
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(musts, i) {
    ly_bool holds = 0;
    LY_ERR status = lyd_eval_xpath3(node, node->schema->module, lyxp_get_expr(musts[i].cond),
                                    LY_VALUE_SCHEMA_RESOLVED, musts[i].prefixes, nullptr, &holds);
    if (status == LY_SUCCESS && holds != 0) continue;
    const char* text = musts[i].emsg != nullptr ? musts[i].emsg : lyxp_get_expr(musts[i].cond);
    faults.add(path, text);
    ly_err_clean(schema.context, nullptr);
  }
  const lyd_node* child = nullptr;
  LY_LIST_FOR(lyd_child(node), child) {
    if (child->schema->nodetype == LYS_LIST) continue;
    check_musts(schema, child, path + "/" + child->schema->name, faults);
  }
}

// Makes the entry at the path and what stands around it, and checks the entry's conditions.
void check_entry(const Schema& schema, const NodeRef& root, const Path& path, Faults& faults) {
  lyd_node* top = nullptr;
  lyd_node* at = nullptr;
  NodeRef node = root;
  for (const Step& step : path) {
    node = child_of(*node, *step.schema);
    lyd_node* made = nullptr;
    if (step.keys.empty()) {
      made = new_inner(at, *step.schema);
    } else {
      node = node ? map_find(node->entries, step.keys) : nullptr;
      made = new_entry(at, *step.schema, step.keys);
    }
    if (made == nullptr || !node) break;
    if (top == nullptr) top = made;
    at = made;
    if (!step.keys.empty()) copy_leaves(*node, made);
  }
  if (at != nullptr && at->schema == path.back().schema->yang) {
    check_musts(schema, at, path_text(path), faults);
  }
  lyd_free_all(top);
  ly_err_clean(schema.context, nullptr);
}

// What the conditions look at in an entry: entries of one list that have this in common keep or
// break them alike, provided that the list's conditions look at nothing else.
void write_weighed(const Node& node, std::string* out) {
  for (const NodeRef& child : node.children) {
    const SchemaNode& schema = *child->schema;
    if (schema.kind == YARROW_NODE_LIST || (schema.is_leaf() && !schema.weighed)) continue;
    *out += std::to_string(schema.id);
    for (const std::string& text : child->texts) {
      *out += ' ' + std::to_string(text.size()) + ' ' + text;
    }
    *out += '(';
    write_weighed(*child, out);
    *out += ')';
  }
}

// What entries that kept their conditions looked like: so a condition is evaluated once for a
// thousand entries of one kind.
class Kept {
 public:
  bool has(const Change& change) {
    if (!change.schema->weighs_own) return false;
    text_ = std::to_string(change.schema->id) + '(';
    write_weighed(*change.entry, &text_);
    return seen_.count(text_) != 0;
  }
  // REQUIRES: `has` was asked about the change last.
  void add(const Change& change) {
    constexpr size_t kMost = 10'000;
    if (!change.schema->weighs_own) return;
    if (seen_.size() == kMost) seen_.clear();
    seen_.insert(text_);
  }

 private:
  std::unordered_set<std::string> seen_;
  std::string text_;
};

bool has_mandatory(const SchemaNode& schema) {
  for (const SchemaNode* child : schema.children) {
    if (child->kind == YARROW_NODE_LIST) continue;
    if (child->mandatory || has_mandatory(*child)) return true;
  }
  return false;
}

}  // namespace

void Faults::add(const std::string& path, std::string_view reason) {
  if (++count > kMaxFaults) return;
  if (!text.empty()) text += '\n';
  text += path;
  text += ": ";
  text += reason;
}

Result faults_result(const Faults& faults) {
  if (faults.count == 0) return {};
  std::string text = faults.text;
  if (faults.count > kMaxFaults) {
    text += "\nand " + std::to_string(faults.count - kMaxFaults) + " more";
  }
  return failed(YARROW_ERR_INVALID, text);
}

Result validate_changes(const Schema& schema, const NodeRef& root,
                        const std::vector<Change>& changes) {
  Faults faults;
  Kept kept;
  for (const Change& change : changes) {
    bool settles = change.op == YARROW_CREATED || !change.leaves.empty();
    if (!change.schema->constrained || change.schema->is_leaf() || !change.entry || !settles)
      continue;
    if (has_mandatory(*change.schema)) {
      check_mandatory(*change.schema, change.entry.get(), path_text(change_path(change)), faults);
    }
    // Keys alone break no condition: conditions speak of how leaves go together.
    if (change.entry->children.empty() || kept.has(change)) continue;
    const size_t before = faults.count;
    check_entry(schema, root, change_path(change), faults);
    if (faults.count == before) kept.add(change);
  }
  return faults_result(faults);
}

}  // namespace agent
