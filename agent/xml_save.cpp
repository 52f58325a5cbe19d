// SPDX-License-Identifier: Apache-2.0
#include "agent/xml.h"

namespace agent {

namespace {

void append_escaped(std::string& out, std::string_view text) {
  for (char byte : text) {
    switch (byte) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\r':  // as it stands, it would be read as the end of a line
        out += "&#13;";
        break;
      default:
        out += byte;
    }
  }
}

void open(std::string& out, const SchemaNode& schema) {
  out += '<';
  out += schema.name;
  if (schema.parent->parent == nullptr || schema.parent->name_space != schema.name_space) {
    out += " xmlns=\"" + schema.name_space + '"';
  }
  out += '>';
}

void close(std::string& out, const SchemaNode& schema) {
  out += "</";
  out += schema.name;
  out += '>';
}

void save_leaf(std::string& out, const SchemaNode& schema, std::string_view text) {
  open(out, schema);
  append_escaped(out, text);
  close(out, schema);
}

void save_keys(std::string& out, const SchemaNode& list, const Keys& keys) {
  for (size_t i = 0; i < keys.size(); ++i) save_leaf(out, *list.children[i], keys[i]);
}

void save_node(std::string& out, const Node& node) {
  const SchemaNode& schema = *node.schema;
  if (node.entries) {
    map_visit(node.entries, [&](const NodeRef& entry) { save_node(out, *entry); });
    return;
  }
  if (schema.is_leaf()) {
    for (const std::string& text : node.texts) save_leaf(out, schema, text);
    return;
  }
  open(out, schema);
  if (schema.kind == YARROW_NODE_LIST) save_keys(out, schema, node.texts);
  for (const NodeRef& child : node.children) save_node(out, *child);
  close(out, schema);
}

}  // namespace

std::string xml_save(const NodeRef& root, const Path& path) {
  std::string out = std::string("<config xmlns=\"") + kConfigNamespace + "\">";
  NodeRef node = find_node(root, path);
  if (path.empty()) {
    for (const NodeRef& child : root->children) save_node(out, *child);
  } else if (node) {
    for (size_t i = 0; i + 1 < path.size(); ++i) {
      open(out, *path[i].schema);
      save_keys(out, *path[i].schema, path[i].keys);
    }
    save_node(out, *node);
    for (size_t i = path.size() - 1; i > 0; --i) close(out, *path[i - 1].schema);
  }
  return out + "</config>";
}

}  // namespace agent
