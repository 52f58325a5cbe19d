// SPDX-License-Identifier: Apache-2.0
#include "agent/schema_tree.h"

#include <libyang/libyang.h>

#include <cstring>

#include "agent/schema.h"
#include "agent/value_words.h"
#include "agent/xml.h"

namespace agent {

namespace {

// The argument of one of the schema's own extensions, "" for one without; null if it is not there.
const char* extension_of(const lysc_node* yang, const char* name) {
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(yang->exts, i) {
    const lysc_ext* definition = yang->exts[i].def;
    if (strcmp(definition->module->name, "yarrow-schema") != 0) continue;
    if (strcmp(definition->name, name) != 0) continue;
    return yang->exts[i].argument != nullptr ? yang->exts[i].argument : "";
  }
  return nullptr;
}

TreeNode::Kind kind_of(uint32_t kind) {
  switch (kind) {
    case YARROW_NODE_LIST:
      return TreeNode::Kind::kList;
    case YARROW_NODE_LEAF:
      return TreeNode::Kind::kLeaf;
    case YARROW_NODE_LEAF_LIST:
      return TreeNode::Kind::kLeafList;
    default:
      return TreeNode::Kind::kContainer;
  }
}

std::unique_ptr<TreeNode> tree_of(const SchemaNode& schema, const TreeNode* parent) {
  auto node = std::make_unique<TreeNode>();
  node->kind = kind_of(schema.kind);
  node->name = schema.name;
  node->name_space = schema.name_space;
  node->parent = parent;
  if (schema.yang != nullptr && schema.yang->dsc != nullptr) node->description = schema.yang->dsc;
  if (schema.is_leaf()) {
    node->expected = expected_value(schema);
    for (const std::string& word : value_choices(schema)) node->words.push_back(word);
    node->empty = schema.value_type == C_XMLTAG;
    node->unnamed = extension_of(schema.yang, "unnamed") != nullptr;
    if (const char* list = extension_of(schema.yang, "refers")) node->refers = list;
  }
  for (const SchemaNode* child : schema.children) {
    if (child->is_state) continue;
    std::unique_ptr<TreeNode> made = tree_of(*child, node.get());
    if (child->is_key) {
      node->keys.push_back(made.get());
      node->owned_keys.push_back(std::move(made));
    } else {
      node->nodes.push_back(std::move(made));
    }
  }
  return node;
}

struct FreeData {
  void operator()(lyd_node* data) const { lyd_free_all(data); }
};
using Data = std::unique_ptr<lyd_node, FreeData>;

// From one format into another, by the schema's own library.
bool convert(const std::string& from, LYD_FORMAT source, LYD_FORMAT target, std::string* to,
             std::string* error) {
  std::unique_ptr<Schema> schema = schema_load(error);
  if (!schema) return false;
  lyd_node* read = nullptr;
  LY_ERR status = lyd_parse_data_mem(schema->context, from.c_str(), source,
                                     LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &read);
  Data data(read);
  char* text = nullptr;
  // Nothing at all is no text, and no fault.
  if (status == LY_SUCCESS && data) {
    uint32_t options = LYD_PRINT_WITHSIBLINGS | (target == LYD_XML ? LYD_PRINT_SHRINK : 0);
    status = lyd_print_mem(&text, data.get(), target, options);
  }
  if (status != LY_SUCCESS) {
    const char* what = ly_errmsg(schema->context);
    const char* where = ly_errpath(schema->context);
    *error = what != nullptr ? what : "cannot be read";
    if (where != nullptr) *error += std::string(" (") + where + ")";
    return false;
  }
  *to = text != nullptr ? text : target == LYD_JSON ? "{}\n" : "";
  free(text);
  return true;
}

}  // namespace

const TreeNode* TreeNode::child(const std::string& called) const {
  for (const auto& node : nodes) {
    if (node->name == called) return node.get();
  }
  return nullptr;
}

const TreeNode* schema_tree(std::string* error) {
  static std::unique_ptr<TreeNode> tree;
  if (tree) return tree.get();
  std::unique_ptr<Schema> schema = schema_load(error);
  if (schema) tree = tree_of(schema->root, nullptr);
  return tree.get();
}

bool json_from_xml(const std::string& xml, std::string* json, std::string* error) {
  // The envelope is the agent's own, no part of the schema.
  std::string inner = xml;
  const std::string open = std::string("<config xmlns=\"") + kConfigNamespace + "\">";
  const std::string close = "</config>";
  if (inner.starts_with(open) && inner.ends_with(close)) {
    inner = inner.substr(open.size(), inner.size() - open.size() - close.size());
  }
  return convert(inner, LYD_XML, LYD_JSON, json, error);
}

bool xml_from_json(const std::string& json, std::string* xml, std::string* error) {
  std::string inner;
  if (!convert(json, LYD_JSON, LYD_XML, &inner, error)) return false;
  *xml = std::string("<config xmlns=\"") + kConfigNamespace + "\">" + inner + "</config>";
  return true;
}

}  // namespace agent
