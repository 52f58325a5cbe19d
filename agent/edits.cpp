// SPDX-License-Identifier: Apache-2.0
#include "agent/edits.h"

#include <algorithm>

#include "agent/keypath.h"
#include "agent/rebase.h"
#include "agent/values.h"
#include "agent/xml.h"
#include "yarrow/yarrow_maapi.h"

namespace agent {

namespace {

Result fault(t_yarrow_error error, const Path& path, std::string_view reason) {
  return failed(error, path_text(path) + ": " + std::string(reason));
}

// Whether the list entries on the way to the last step are there.
bool parents_exist(const NodeRef& root, const Path& path) {
  for (size_t i = path.size(); i > 1; --i) {
    if (path[i - 2].keys.empty()) continue;
    return find_node(root, Path(path.begin(), path.begin() + static_cast<ptrdiff_t>(i - 1))) !=
           nullptr;
  }
  return true;
}

Result check_editable(const Editor& editor, const Path& path) {
  if (!path.empty()) {
    const SchemaNode& node = *path.back().schema;
    if (node.is_state && !editor.state) return fault(YARROW_ERR_ACCESS, path, "is state data");
    if (!node.is_state && !node.holds_state && editor.state) {
      return fault(YARROW_ERR_ACCESS, path, "is configuration");
    }
    if (node.is_key) return fault(YARROW_ERR_ACCESS, path, "is a key");
  }
  if (!parents_exist(*editor.root, path)) return fault(YARROW_ERR_NOEXISTS, path, "has no parent");
  return {};
}

Result make_texts(const Editor& editor, const Path& path, std::vector<std::string>* texts) {
  const SchemaNode& leaf = *path.back().schema;
  std::vector<std::string> canonical;
  for (const std::string& text : *texts) {
    std::string one;
    std::string reason;
    if (!schema_canonical(editor.schema, leaf, text, &one, &reason)) {
      return fault(YARROW_ERR_BADVALUE, path, reason);
    }
    if (std::find(canonical.begin(), canonical.end(), one) == canonical.end()) {
      canonical.push_back(std::move(one));
    }
  }
  *texts = std::move(canonical);
  return {};
}

// Sets a leaf, or a leaf-list: whole, or one item more.
Result set_texts(Editor& editor, const Path& path, std::vector<std::string> texts, bool whole) {
  if (path.empty() || !path.back().schema->is_leaf()) {
    return fault(YARROW_ERR_BADPATH, path, "is no leaf");
  }
  Result result = check_editable(editor, path);
  if (!result.ok()) return result;
  bool is_leaf = path.back().schema->kind == YARROW_NODE_LEAF;
  if (is_leaf && texts.size() != 1) return fault(YARROW_ERR_BADVALUE, path, "takes one value");
  NodeRef old = find_node(*editor.root, path);
  if (!is_leaf && !whole && old) texts.insert(texts.begin(), old->texts.begin(), old->texts.end());
  if (texts.size() > yarrow::kMaxLeafListItems) {
    return fault(YARROW_ERR_TOOBIG, path, "too many items");
  }
  result = make_texts(editor, path, &texts);
  if (!result.ok() || (old && old->texts == texts)) return result;
  NodeRef leaf = texts.empty() ? nullptr : make_leaf(*path.back().schema, std::move(texts));
  *editor.root = with_node(*editor.root, path, leaf);
  return {};
}

Result check_entry_path(const Editor& editor, const Path& path) {
  if (path.empty() || path.back().keys.empty()) {
    return fault(YARROW_ERR_BADPATH, path, "is no list entry");
  }
  return check_editable(editor, path);
}

NodeRef bare_entry(const Path& path) {
  auto entry = std::make_shared<Node>();
  entry->schema = path.back().schema;
  entry->texts = path.back().keys;
  return entry;
}

// Takes away what an operation replaces or deletes, as far as it may. `before` is the tree that the
// text was loaded into.
Result run_operation(const Path& top, const XmlOperation& operation, const NodeRef& before,
                     NodeRef* root) {
  Path path = top;
  path.insert(path.end(), operation.path.begin(), operation.path.end());
  NodeRef node = find_node(before, path);
  const bool is_item = path.back().schema->kind == YARROW_NODE_LEAF_LIST;
  bool exists = node != nullptr;
  if (is_item && node) {
    exists = std::find(node->texts.begin(), node->texts.end(), operation.item) != node->texts.end();
  }
  if (operation.kind == XmlOperationKind::kCreate) {
    if (!exists) return {};
    return failed(YARROW_ERR_ALREADY,
                  xml_place_text(operation.place) + path_text(path) + ": exists already");
  }
  if (operation.kind == XmlOperationKind::kDelete && !exists) {
    return failed(YARROW_ERR_NOEXISTS,
                  xml_place_text(operation.place) + path_text(path) + ": no such node");
  }
  if (!is_item) {
    *root = with_node(*root, path, nullptr);
  } else if (operation.kind != XmlOperationKind::kReplace) {
    NodeRef left = find_node(*root, path);
    std::vector<std::string> texts = left ? left->texts : std::vector<std::string>();
    std::erase(texts, operation.item);
    left = texts.empty() ? nullptr : make_leaf(*path.back().schema, std::move(texts));
    *root = with_node(*root, path, left);
  }
  return {};
}

}  // namespace

bool node_exists(const NodeRef& root, const Path& path) {
  if (!path.empty() && path.back().schema->is_key) {
    return find_node(root, Path(path.begin(), path.end() - 1)) != nullptr;
  }
  return find_node(root, path) != nullptr;
}

Result count_entries(const NodeRef& root, const Path& path, uint32_t* count) {
  bool is_list = !path.empty() && path.back().schema->kind == YARROW_NODE_LIST;
  if (!is_list || !path.back().keys.empty()) return fault(YARROW_ERR_BADPATH, path, "is no list");
  NodeRef list = find_node(root, path);
  *count = list ? map_count(list->entries) : 0;
  return {};
}

Result read_text(const NodeRef& root, const Path& path, std::string* text) {
  if (path.empty() || path.back().schema->kind != YARROW_NODE_LEAF) {
    return fault(YARROW_ERR_BADPATH, path, "is no leaf");
  }
  const SchemaNode& leaf = *path.back().schema;
  if (leaf.is_key) {
    if (!node_exists(root, path)) return fault(YARROW_ERR_NOEXISTS, path, "no such node");
    *text = path[path.size() - 2].keys[leaf.index];
    return {};
  }
  if (NodeRef node = find_node(root, path)) {
    *text = node->texts[0];
    return {};
  }
  if (!leaf.has_default || !parents_exist(root, path)) {
    return fault(YARROW_ERR_NOEXISTS, path, "no such node");
  }
  *text = leaf.default_text;
  return {};
}

Result edit_set_text(Editor& editor, const Path& path, std::string_view text) {
  return set_texts(editor, path, {std::string(text)}, false);
}

Result edit_set_value(Editor& editor, const Path& path, yarrow::Reader& in) {
  if (path.empty() || !path.back().schema->is_leaf()) {
    return fault(YARROW_ERR_BADPATH, path, "is no leaf");
  }
  yarrow::Reader ahead = in;
  bool whole = ahead.u32() == C_LIST;
  std::vector<std::string> texts;
  bool absent = false;
  Result result = value_decode(*path.back().schema, in, &texts, &absent);
  if (!result.ok()) return result;
  if (absent) return fault(YARROW_ERR_BADVALUE, path, "no value");
  return set_texts(editor, path, std::move(texts), whole);
}

Result edit_create(Editor& editor, const Path& path) {
  Result result = check_entry_path(editor, path);
  if (!result.ok()) return result;
  if (find_node(*editor.root, path)) return fault(YARROW_ERR_ALREADY, path, "exists");
  *editor.root = with_node(*editor.root, path, bare_entry(path));
  return {};
}

Result edit_set_object(Editor& editor, const Path& path, yarrow::Reader& in) {
  Result result = check_entry_path(editor, path);
  if (!result.ok()) return result;
  NodeRef undo = *editor.root;
  if (!find_node(undo, path)) *editor.root = with_node(undo, path, bare_entry(path));
  uint32_t count = in.u32();
  Path leaf_path = path;
  leaf_path.push_back({});
  uint32_t taken = 0;
  for (const SchemaNode* child : path.back().schema->children) {
    if (taken == count || !result.ok()) break;
    if (!child->is_leaf()) continue;
    ++taken;
    leaf_path.back().schema = child;
    yarrow::Reader ahead = in;
    bool whole = ahead.u32() == C_LIST;
    std::vector<std::string> texts;
    bool absent = false;
    result = value_decode(*child, in, &texts, &absent);
    if (!result.ok() || absent) continue;
    if (!child->is_key) {
      result = set_texts(editor, leaf_path, std::move(texts), whole);
      continue;
    }
    result = make_texts(editor, leaf_path, &texts);
    if (result.ok() && (texts.empty() || texts[0] != path.back().keys[child->index])) {
      result = fault(YARROW_ERR_BADVALUE, leaf_path, "is not the key of the path");
    }
  }
  if (result.ok() && (taken != count || !in.ok())) {
    result = fault(YARROW_ERR_BADVALUE, path, "has fewer leaves than there are values");
  }
  if (!result.ok()) *editor.root = undo;
  return result;
}

Result edit_delete(Editor& editor, const Path& path) {
  Result result = check_editable(editor, path);
  if (!result.ok()) return result;
  if (path.empty()) {
    *editor.root = empty_tree(editor.schema);
    return {};
  }
  const SchemaNode& node = *path.back().schema;
  bool may_be_absent = !path.back().keys.empty() || (node.is_leaf() && !node.has_default);
  if (may_be_absent && !find_node(*editor.root, path)) {
    return fault(YARROW_ERR_NOEXISTS, path, "no such node");
  }
  *editor.root = with_node(*editor.root, path, nullptr);
  return {};
}

Result edit_load(Editor& editor, const Path& path, uint32_t flags, std::string_view text) {
  const SchemaNode& top = path.empty() ? editor.schema.root : *path.back().schema;
  bool holds_elements =
      top.kind == YARROW_NODE_CONTAINER || (!path.empty() && !path.back().keys.empty());
  if (!holds_elements) return fault(YARROW_ERR_BADPATH, path, "holds no elements");
  if (!path.empty() && !parents_exist(*editor.root, path)) {
    return fault(YARROW_ERR_NOEXISTS, path, "has no parent");
  }
  XmlContent content;
  XmlRules rules{editor.state, (flags & YARROW_CONFIG_SKIP_STATE) != 0};
  Result result = xml_load(editor.schema, text, top, rules, &content);
  if (!result.ok()) return result;
  NodeRef root = *editor.root;
  for (const XmlOperation& operation : content.operations) {
    result = run_operation(path, operation, *editor.root, &root);
    if (!result.ok()) return result;
  }
  NodeRef target = find_node(root, path);
  Node base;
  if (target) base = *target;
  base.schema = &top;
  if (!path.empty()) base.texts = path.back().keys;
  if ((flags & YARROW_CONFIG_MERGE) != 0) {
    target = merged(std::make_shared<Node>(base), content.node);
  } else if ((flags & YARROW_CONFIG_REPLACE) != 0) {
    target = std::make_shared<Node>(base);
    for (const SchemaNode* child : content.named) {
      target = with_child(*target, *child, child_of(*content.node, *child));
    }
  } else {
    base.children = content.node->children;
    target = std::make_shared<Node>(base);
  }
  target = shared(find_node(*editor.root, path), target);
  bool vanishes = target->children.empty() && top.kind == YARROW_NODE_CONTAINER && !path.empty();
  *editor.root = with_node(root, path, vanishes ? nullptr : target);
  return {};
}

}  // namespace agent
