// SPDX-License-Identifier: Apache-2.0
//
// The agent's own view of the compiled YANG schema: plain nodes with tags and value types, and the
// checking of values. Built once; constant afterwards.
#ifndef AGENT_SCHEMA_H
#define AGENT_SCHEMA_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "yarrow/yarrow_schema.h"

struct ly_ctx;
struct lysc_node;

namespace agent {

constexpr uint32_t kMaxKeys = 4;  // of a list

struct SchemaNode {
  const lysc_node* yang = nullptr;
  std::string name;
  std::string prefix;
  std::string name_space;
  uint32_t tag = 0;
  uint32_t ns_tag = 0;
  t_yarrow_node_kind kind = YARROW_NODE_CONTAINER;
  uint32_t value_type = 0;  // of a union of address families: the IPv4 member's
  uint32_t id = 0;          // position in Schema::all
  uint32_t index = 0;       // among the parent's children
  uint32_t key_count = 0;   // of a list; its keys are its first children
  bool is_state = false;
  bool is_key = false;
  bool holds_state = false;  // state data somewhere below
  bool mandatory = false;
  // It, or a container or leaf in it outside further lists, has a constraint.
  bool constrained = false;
  bool weighed = false;     // a leaf: a "must" condition of its entry looks at it
  bool weighs_own = false;  // a list: "must" conditions of its entries look at nothing outside them
  bool numeric_key = false;  // canonical texts of the type sort by length, then bytewise
  bool has_default = false;
  std::string default_text;
  std::string path;    // without keys: "/policy/lists/site-list"
  uint32_t level = 0;  // lists on the path, itself included
  const SchemaNode* parent = nullptr;
  std::vector<const SchemaNode*> children;
  std::map<std::string, uint32_t, std::less<>> enum_numbers;

  bool is_leaf() const { return kind == YARROW_NODE_LEAF || kind == YARROW_NODE_LEAF_LIST; }
};

struct Schema {
  ly_ctx* context = nullptr;
  SchemaNode root;                               // nameless; the top-level nodes are its children
  std::vector<std::unique_ptr<SchemaNode>> all;  // every parent before its children

  Schema();
  ~Schema();
  Schema(const Schema&) = delete;
  Schema& operator=(const Schema&) = delete;
};

// Compiles the modules built into the program. Null on failure, with the reason in `error`.
std::unique_ptr<Schema> schema_load(std::string* error);

// The child called `name`, null without one.
const SchemaNode* schema_child(const SchemaNode& parent, std::string_view name);

// Brings the text of a leaf's value into canonical form. False, with the reason, if its type
// refuses it.
bool schema_canonical(const Schema& schema, const SchemaNode& leaf, std::string_view text,
                      std::string* canonical, std::string* error);

}  // namespace agent
#endif
