// SPDX-License-Identifier: Apache-2.0
#include "agent/schema.h"

#include <libyang/libyang.h>
#include <libyang/plugins_types.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "agent/modules.h"
#include "agent/value_words.h"
#include "agent/xml_bounds.h"
#include "platform/yarrow/wire.h"

namespace agent {

namespace {

// FNV-1a without the top bit, which no assigned tag has either.
uint32_t name_hash(std::string_view name) {
  uint32_t hash = 2166136261u;
  for (char byte : name) hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
  return hash & 0x7fffffffu;
}

LY_ERR give_module(const char* name, const char* /*revision*/, const char* /*submodule*/,
                   const char* /*submodule_revision*/, void* /*user_data*/, LYS_INFORMAT* format,
                   const char** data, void (**free_data)(void* data, void* user_data)) {
  for (const Module& module : kModules) {
    if (strcmp(module.name, name) != 0) continue;
    *format = LYS_IN_YANG;
    *data = module.text;
    *free_data = nullptr;
    return LY_SUCCESS;
  }
  return LY_ENOT;
}

bool plugin_is(const lysc_type* type, const char* name) {
  return type->plugin != nullptr && type->plugin->id != nullptr &&
         strstr(type->plugin->id, name) != nullptr;
}

uint32_t value_type_of(const lysc_type* type) {
  switch (type->basetype) {
    case LY_TYPE_EMPTY:
      return C_XMLTAG;
    case LY_TYPE_INT8:
      return C_INT8;
    case LY_TYPE_INT16:
      return C_INT16;
    case LY_TYPE_INT32:
      return C_INT32;
    case LY_TYPE_INT64:
      return C_INT64;
    case LY_TYPE_UINT8:
      return C_UINT8;
    case LY_TYPE_UINT16:
      return C_UINT16;
    case LY_TYPE_UINT32:
      return C_UINT32;
    case LY_TYPE_UINT64:
      return C_UINT64;
    case LY_TYPE_BOOL:
      return C_BOOL;
    case LY_TYPE_ENUM:
      return C_ENUM_VALUE;
    case LY_TYPE_UNION: {
      const auto* members = reinterpret_cast<const lysc_type_union*>(type);
      return LY_ARRAY_COUNT(members->types) > 0 ? value_type_of(members->types[0])
                                                : uint32_t{C_BUF};
    }
    default:
      if (plugin_is(type, "ipv4-prefix")) return C_IPV4PREFIX;
      if (plugin_is(type, "ipv6-prefix")) return C_IPV6PREFIX;
      if (plugin_is(type, "ipv4-address")) return C_IPV4;
      if (plugin_is(type, "ipv6-address")) return C_IPV6;
      return C_BUF;
  }
}

const lysc_type* type_of(const lysc_node* node) {
  if (node->nodetype == LYS_LEAF) return reinterpret_cast<const lysc_node_leaf*>(node)->type;
  return reinterpret_cast<const lysc_node_leaflist*>(node)->type;
}

uint32_t stated_tag(const lysc_node* node) {
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(node->exts, i) {
    const lysc_ext* definition = node->exts[i].def;
    if (strcmp(definition->name, "tag") == 0 &&
        strcmp(definition->module->name, "yarrow-schema") == 0) {
      return static_cast<uint32_t>(strtoul(node->exts[i].argument, nullptr, 16));
    }
  }
  return 0;
}

struct Builder {
  Schema& schema;
  std::map<std::string, uint32_t, std::less<>> tags;  // by name, as stated
  std::string error;

  bool add(SchemaNode& parent, const lysc_node* yang);
  bool add_children(SchemaNode& parent, const lysc_node* first);
  bool settle_tags();
  void settle_conditions();
};

bool Builder::add_children(SchemaNode& parent, const lysc_node* first) {
  const lysc_node* child = nullptr;
  LY_LIST_FOR(first, child) {
    if (!add(parent, child)) return false;
  }
  return true;
}

bool Builder::add(SchemaNode& parent, const lysc_node* yang) {
  schema.all.push_back(std::make_unique<SchemaNode>());
  SchemaNode& node = *schema.all.back();
  node.yang = yang;
  node.name = yang->name;
  node.prefix = yang->module->prefix;
  node.name_space = yang->module->ns;
  node.ns_tag = name_hash(node.name_space);
  node.id = static_cast<uint32_t>(schema.all.size() - 1);
  node.index = static_cast<uint32_t>(parent.children.size());
  node.is_state = (yang->flags & LYS_CONFIG_R) != 0;
  node.parent = &parent;
  node.path = parent.path + "/" + node.name;
  node.level = parent.level;
  node.mandatory = (yang->flags & LYS_MAND_TRUE) != 0 && (yang->flags & LYS_KEY) == 0;
  node.constrained = node.mandatory || lysc_node_musts(yang) != nullptr;
  parent.children.push_back(&node);
  if (uint32_t tag = stated_tag(yang); tag != 0) {
    auto [at, is_new] = tags.emplace(node.name, tag);
    if (!is_new && at->second != tag) {
      error = node.path + ": two tags for one name";
      return false;
    }
  }
  switch (yang->nodetype) {
    case LYS_CONTAINER:
      node.kind = YARROW_NODE_CONTAINER;
      break;
    case LYS_LIST:
      node.kind = YARROW_NODE_LIST;
      ++node.level;
      break;
    case LYS_LEAF:
    case LYS_LEAFLIST: {
      node.kind = yang->nodetype == LYS_LEAF ? YARROW_NODE_LEAF : YARROW_NODE_LEAF_LIST;
      node.is_key = (yang->flags & LYS_KEY) != 0;
      const lysc_type* type = type_of(yang);
      node.value_type = value_type_of(type);
      node.numeric_key = node.value_type >= C_UINT8 && node.value_type <= C_UINT64;
      if (type->basetype == LY_TYPE_ENUM) {
        const auto* words = reinterpret_cast<const lysc_type_enum*>(type);
        LY_ARRAY_COUNT_TYPE i = 0;
        LY_ARRAY_FOR(words->enums, i) {
          node.enum_numbers.emplace(words->enums[i].name,
                                    static_cast<uint32_t>(words->enums[i].value));
        }
      }
      if (yang->nodetype == LYS_LEAF) {
        const lyd_value* value = reinterpret_cast<const lysc_node_leaf*>(yang)->dflt;
        node.has_default = value != nullptr;
        if (value != nullptr) node.default_text = lyd_value_get_canonical(schema.context, value);
      }
      break;
    }
    default:
      error = node.path + ": a kind of node that the agent does not keep";
      return false;
  }
  if (!add_children(node, lysc_node_child(yang))) return false;
  for (const SchemaNode* child : node.children) {
    if (child->is_key) ++node.key_count;
    node.holds_state = node.holds_state || child->is_state || child->holds_state;
    if (child->kind != YARROW_NODE_LIST) node.constrained = node.constrained || child->constrained;
  }
  if (node.kind == YARROW_NODE_LIST && (node.key_count == 0 || node.key_count > kMaxKeys)) {
    error = node.path + ": a list without keys, or with too many";
    return false;
  }
  return true;
}

bool Builder::settle_tags() {
  std::map<uint32_t, std::string> names;
  for (const auto& node : schema.all) {
    auto stated = tags.find(node->name);
    node->tag = stated != tags.end() ? stated->second : name_hash(node->name);
    auto [at, is_new] = names.emplace(node->tag, node->name);
    if (!is_new && at->second != node->name) {
      error = node->path + ": its tag is that of " + at->second;
      return false;
    }
  }
  return true;
}

// The list whose entries the node is in, or is; null where it is in none.
SchemaNode* list_around(SchemaNode* node) {
  while (node != nullptr && node->kind != YARROW_NODE_LIST) {
    node = const_cast<SchemaNode*>(node->parent);
  }
  return node;
}

void Builder::settle_conditions() {
  std::map<const lysc_node*, SchemaNode*> nodes;
  for (const auto& node : schema.all) {
    nodes[node->yang] = node.get();
    node->weighs_own = node->kind == YARROW_NODE_LIST;
  }
  for (const auto& node : schema.all) {
    SchemaNode* list = list_around(node.get());
    if (list == nullptr) continue;
    const lysc_must* musts = lysc_node_musts(node->yang);
    LY_ARRAY_COUNT_TYPE i = 0;
    LY_ARRAY_FOR(musts, i) {
      ly_set* atoms = nullptr;
      if (lys_find_expr_atoms(node->yang, node->yang->module, musts[i].cond, musts[i].prefixes, 0,
                              &atoms) != LY_SUCCESS) {
        list->weighs_own = false;
        continue;
      }
      for (uint32_t at = 0; at < atoms->count; ++at) {
        auto found = nodes.find(atoms->snodes[at]);
        if (found == nodes.end() || list_around(found->second) != list || found->second->is_key) {
          list->weighs_own = false;
        } else {
          found->second->weighed = true;
        }
      }
      ly_set_free(atoms, nullptr);
    }
  }
}

}  // namespace

Schema::Schema() = default;
Schema::~Schema() { ly_ctx_destroy(context); }

std::unique_ptr<Schema> schema_load(std::string* error) {
  ly_log_options(LY_LOSTORE);
  auto schema = std::make_unique<Schema>();
  if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &schema->context) !=
      LY_SUCCESS) {
    *error = "cannot set up the schema context";
    return nullptr;
  }
  ly_ctx_set_module_imp_clb(schema->context, give_module, nullptr);
  Builder builder{*schema, {}, {}};
  for (const Module& module : kModules) {
    const lys_module* loaded = ly_ctx_load_module(schema->context, module.name, nullptr, nullptr);
    if (loaded == nullptr) {
      const char* text = ly_errmsg(schema->context);
      *error = std::string(module.name) + ": " + (text != nullptr ? text : "cannot be loaded");
      return nullptr;
    }
    if (loaded->compiled != nullptr &&
        !builder.add_children(schema->root, loaded->compiled->data)) {
      *error = builder.error;
      return nullptr;
    }
  }
  if (!builder.settle_tags()) {
    *error = builder.error;
    return nullptr;
  }
  builder.settle_conditions();
  return schema;
}

const SchemaNode* schema_child(const SchemaNode& parent, std::string_view name) {
  for (const SchemaNode* child : parent.children) {
    if (child->name == name) return child;
  }
  return nullptr;
}

bool schema_canonical(const Schema& schema, const SchemaNode& leaf, std::string_view text,
                      std::string* canonical, std::string* error) {
  if (text.size() > yarrow::kMaxValueText) {
    *error = "a value of more than " + std::to_string(yarrow::kMaxValueText) + " bytes";
    return false;
  }
  if (!is_xml_text(text)) {
    *error = "a value with bytes that are no UTF-8 text";
    return false;
  }
  const char* result = nullptr;
  std::string terminated(text);
  LY_ERR status = lyd_value_validate(schema.context, leaf.yang, terminated.c_str(),
                                     terminated.size(), nullptr, nullptr, &result);
  if (status != LY_SUCCESS) {
    *error = refused_value(leaf, text);
    ly_err_clean(schema.context, nullptr);
    return false;
  }
  *canonical = result != nullptr ? result : "";
  lydict_remove(schema.context, result);
  return true;
}

}  // namespace agent
