// SPDX-License-Identifier: Apache-2.0
#include "platform/yarrow/change_check.h"

#include <string>
#include <vector>

#include "platform/yarrow/client.h"

namespace yarrow {

namespace {

using Node = t_yarrow_cs_node;

struct TypeName {
  uint32_t type;
  const char* name;
};

constexpr TypeName kNames[] = {
    {C_NOEXISTS, "no value"},
    {C_XMLTAG, "an empty leaf"},
    {C_BUF, "a text"},
    {C_INT8, "an int8"},
    {C_INT16, "an int16"},
    {C_INT32, "an int32"},
    {C_INT64, "an int64"},
    {C_UINT8, "a uint8"},
    {C_UINT16, "a uint16"},
    {C_UINT32, "a uint32"},
    {C_UINT64, "a uint64"},
    {C_IPV4, "an IPv4 address"},
    {C_IPV6, "an IPv6 address"},
    {C_BOOL, "a boolean"},
    {C_ENUM_VALUE, "an enumeration's number"},
    {C_LIST, "a leaf-list"},
    {C_XMLBEGIN, "the begin of a container"},
    {C_XMLEND, "the end of a container"},
    {C_IPV4PREFIX, "an IPv4 prefix"},
    {C_IPV6PREFIX, "an IPv6 prefix"},
};

const char* name_of(uint32_t type) {
  for (const TypeName& known : kNames) {
    if (known.type == type) return known.name;
  }
  return "a value of no known type";
}

bool is_leaf(const Node& node) {
  return node.kind == YARROW_NODE_LEAF || node.kind == YARROW_NODE_LEAF_LIST;
}

// `came` is what does not fit: the value, or the first such item of a leaf-list.
bool fits(const Node& leaf, const t_yarrow_value& value, const t_yarrow_value** came) {
  *came = &value;
  if (leaf.kind == YARROW_NODE_LEAF) return value.type == leaf.type;
  if (value.type != C_LIST) return false;
  for (uint32_t i = 0; i < value.val.list.size; ++i) {
    *came = &value.val.list.ptr[i];
    if ((*came)->type != leaf.type) return false;
  }
  return true;
}

int misfit(const std::string& where, const char* came, const char* expected) {
  return fail(YARROW_ERR_PROTOCOL,
              where + ": the agent told " + came + " (expected " + expected + ")");
}

const Node* child_with_tag(const Node& node, uint32_t tag) {
  for (const Node* child = node.children; child != nullptr; child = child->next) {
    if (child->tag == tag) return child;
  }
  return nullptr;
}

int check_leaf(const std::string& where, const Node& leaf, const t_yarrow_value& value) {
  const t_yarrow_value* came = nullptr;
  if (value.type == C_NOEXISTS || fits(leaf, value, &came)) return YARROW_OK;
  bool whole = leaf.kind == YARROW_NODE_LEAF_LIST && came == &value && value.type != leaf.type;
  return misfit(where, name_of(came->type), name_of(whole ? uint32_t{C_LIST} : leaf.type));
}

int check_keys(const Node& node, const t_yarrow_change& change) {
  std::vector<const Node*> lists;
  for (const Node* at = &node; at != nullptr; at = at->parent) {
    if (at->kind == YARROW_NODE_LIST) lists.insert(lists.begin(), at);
  }
  uint32_t number = 0;
  for (const Node* list : lists) {
    const Node* key = list->children;
    for (uint32_t i = 0; i < list->key_count && key != nullptr; ++i, key = key->next, ++number) {
      const std::string where = std::string(change.path) + ", key " + key->name;
      if (number >= change.key_count) return misfit(where, "no key", name_of(key->type));
      if (change.keys[number].type == key->type) continue;
      return misfit(where, name_of(change.keys[number].type), name_of(key->type));
    }
  }
  if (number == change.key_count && change.level == lists.size()) return YARROW_OK;
  return misfit(change.path, "keys of other lists", "those of the path");
}

// A container that has begun.
struct Open {
  const Node* node;  // null: not known, like all below it
  std::string path;
};

}  // namespace

int check_change(const Node& node, const t_yarrow_change& change) {
  if (check_keys(node, change) != YARROW_OK) return YARROW_ERR;
  std::vector<Open> open = {{&node, change.path}};
  for (uint32_t i = 0; i < change.value_count; ++i) {
    const t_yarrow_tag_value& value = change.values[i];
    const Node* above = open.back().node;
    if (value.v.type == C_XMLEND) {
      open.pop_back();
      if (open.empty()) return misfit(change.path, "the end of a container", "its begin before");
      continue;
    }
    const Node* child = nullptr;
    if (above != nullptr) child = is_leaf(*above) ? above : child_with_tag(*above, value.tag);
    std::string where = open.back().path;
    if (child != nullptr && child != above) where += std::string("/") + child->name;
    if (value.v.type == C_XMLBEGIN) {
      if (child != nullptr && child->kind != YARROW_NODE_CONTAINER) {
        return misfit(where, name_of(C_XMLBEGIN), name_of(child->type));
      }
      open.push_back({child, std::move(where)});
    } else if (child != nullptr && !is_leaf(*child)) {
      return misfit(where, name_of(value.v.type), "a container or a list");
    } else if (child != nullptr && check_leaf(where, *child, value.v) != YARROW_OK) {
      return YARROW_ERR;
    }
  }
  if (open.size() == 1) return YARROW_OK;
  return misfit(open.back().path, "a container without end", name_of(C_XMLEND));
}

}  // namespace yarrow
