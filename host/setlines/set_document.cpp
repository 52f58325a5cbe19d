// SPDX-License-Identifier: Apache-2.0
//
// Lines of one entry may stand anywhere, XML wants them together: so a tree is made first.
#include "set_document.h"

#include <algorithm>
#include <deque>
#include <unordered_map>

#include "host/address_text.h"

namespace polctl {

namespace {

using agent::TreeNode;

constexpr const char* kEnvelope =
    "<config xmlns=\"urn:norvik:config:1.0\" "
    "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">\n";

struct Node {
  enum class Operation : uint8_t { kMerge, kDelete, kRemove, kReplace };
  const TreeNode* schema = nullptr;
  const SetStep* step = nullptr;     // of an entry: its keys
  const std::string* key = nullptr;  // in Tree::by_path_
  std::string text;                  // of a leaf
  SetPlace place;
  bool is_set = false;  // a leaf with a value, or an entry that a line names
  Operation operation = Operation::kMerge;
  std::vector<Node*> children;
};

class Tree {
 public:
  explicit Tree(SetDocument* document) : document_(document) { root_.schema = &config_schema(); }

  void set(const SetTarget& target, uint32_t line);
  void remove(SetTarget target, uint32_t line);
  void write() { write_children(root_, 0); }

 private:
  Node* find(const SetPath& path, const std::string* item, uint32_t line, bool* is_new);
  void forget(const Node& node);
  void line(SetPlace place, std::string_view text);
  void write_children(const Node& node, size_t depth);
  void write_node(const Node& node, size_t depth);

  SetDocument* document_;
  Node root_;
  std::deque<Node> nodes_;
  std::deque<SetPath> paths_;  // that the nodes' steps point into
  std::unordered_map<std::string, Node*> by_path_;
};

void fault(SetDocument* document, SetPlace place, std::string what, std::string expected) {
  document->faults.push_back({place, std::move(what), std::move(expected)});
}

std::string escaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '&' || c == '<' || c == '>' || c == '\r' || c == '\n') {
      out += "&#" + std::to_string(static_cast<int>(c)) + ";";
    } else {
      out += c;
    }
  }
  return out;
}

const char* operation_attribute(Node::Operation operation) {
  switch (operation) {
    case Node::Operation::kDelete:
      return " nc:operation=\"delete\"";
    case Node::Operation::kRemove:
      return " nc:operation=\"remove\"";
    case Node::Operation::kReplace:
      return " nc:operation=\"replace\"";
    default:
      return "";
  }
}

// The node of a path, the ones on the way made as needed; an item of a leaf-list has one of its own.
Node* Tree::find(const SetPath& path, const std::string* item, uint32_t line, bool* is_new) {
  Node* node = &root_;
  std::string key;
  *is_new = false;
  const SetPath* kept = nullptr;
  for (size_t i = 0; i < path.size(); ++i) {
    key += '/';
    key += path[i].node->name;
    for (const SetWord& word : path[i].keys) key += '\0' + word.text;
    if (item != nullptr && i + 1 == path.size()) key += '\0' + *item;
    auto [at, made] = by_path_.try_emplace(key, nullptr);
    *is_new = made;
    if (made) {
      if (kept == nullptr) kept = &paths_.emplace_back(path);
      at->second = &nodes_.emplace_back();
      at->second->schema = path[i].node;
      at->second->step = &(*kept)[i];
      at->second->key = &at->first;
      at->second->place = {line, path[i].column};
      node->children.push_back(at->second);
    }
    node = at->second;
    // What is set below what was deleted takes its place.
    bool below = i + 1 < path.size();
    if (below && (node->operation == Node::Operation::kDelete ||
                  node->operation == Node::Operation::kRemove)) {
      node->operation = Node::Operation::kReplace;
    }
  }
  return node;
}

void Tree::set(const SetTarget& target, uint32_t line) {
  bool is_item = target.path.back().node->kind == TreeNode::Kind::kLeafList;
  bool is_new = false;
  Node* node = find(target.path, is_item ? &target.value->text : nullptr, line, &is_new);
  bool is_leaf = node->schema->is_leaf();
  SetPlace place = {line, target.value ? target.value->column : target.path.back().column};
  bool replaces =
      node->operation == Node::Operation::kDelete || node->operation == Node::Operation::kRemove;
  if (is_leaf && node->is_set) {
    fault(document_, place,
          node->schema->name + " stands twice, first in line " + std::to_string(node->place.line),
          "it once");
    return;
  }
  // An entry that a line makes anew replaces the one that was deleted; a leaf does so by itself.
  if (replaces) node->operation = is_leaf ? Node::Operation::kMerge : Node::Operation::kReplace;
  node->is_set = true;
  if (is_leaf) node->place = place;
  if (target.value) node->text = target.value->text;
}

void Tree::remove(SetTarget target, uint32_t line) {
  const SetStep& last = target.path.back();
  bool is_item = last.node->kind == TreeNode::Kind::kLeafList;
  if ((is_item && !target.value) ||
      (last.node->kind == TreeNode::Kind::kList && last.keys.empty())) {
    fault(document_, {line, last.column}, "which " + last.node->name + " is deleted is missing",
          is_item ? last.node->expected : "the " + last.node->keys.front()->name);
    return;
  }
  bool is_new = false;
  Node* node = find(target.path, is_item ? &target.value->text : nullptr, line, &is_new);
  // What this text itself has set may or may not have been there before.
  node->operation = is_new ? Node::Operation::kDelete : Node::Operation::kRemove;
  node->place = {line, last.column};
  node->is_set = false;
  node->text = target.value ? target.value->text : "";
  for (const Node* child : node->children) forget(*child);
  node->children.clear();
}

// Of what stood below a deleted node nothing is to be found by its path.
void Tree::forget(const Node& node) {
  for (const Node* child : node.children) forget(*child);
  by_path_.erase(*node.key);
}

void Tree::line(SetPlace place, std::string_view text) {
  document_->xml += text;
  document_->xml += '\n';
  document_->places.push_back(place);
}

void Tree::write_children(const Node& node, size_t depth) {
  // In schema order, so that lists stand before those who name them, whatever the lines' order.
  for (const auto& schema : node.schema->nodes) {
    for (const Node* child : node.children) {
      if (child->schema == schema.get()) write_node(*child, depth);
    }
  }
}

void Tree::write_node(const Node& node, size_t depth) {
  const TreeNode& schema = *node.schema;
  bool deleted =
      node.operation == Node::Operation::kDelete || node.operation == Node::Operation::kRemove;
  std::string open = "<" + schema.name;
  if (depth == 0) open += " xmlns=\"" + schema.name_space + "\"";
  open += operation_attribute(node.operation);
  const std::string close = "</" + schema.name + ">";
  if (schema.is_leaf()) {
    line(node.place, open + ">" + escaped(node.text) + close);
    return;
  }
  line(node.place, open + ">");
  for (size_t i = 0; node.step != nullptr && i < node.step->keys.size(); ++i) {
    const SetWord& key = node.step->keys[i];
    const std::string& name = schema.keys[i]->name;
    line({node.place.line, key.column}, std::string("<")
                                            .append(name)
                                            .append(">")
                                            .append(escaped(key.text))
                                            .append("</")
                                            .append(name + ">"));
  }
  if (!deleted) write_children(node, depth + 1);
  line(node.place, close);
}

void read_line(std::string_view text, uint32_t number, const SetPath& from, Tree* tree) {
  std::vector<SetWord> words = split_words(text);
  if (words.empty()) return;
  if (words[0].text == "set") {
    for (const SetTarget& target : resolve_words(from, words, 1, SetUse::kSet)) {
      tree->set(target, number);
    }
    return;
  }
  if (words[0].text != "delete") {
    throw LineFaultError(
        {words[0].column, "unknown word " + in_quotes(words[0].text), "set or delete"});
  }
  std::vector<SetTarget> targets = resolve_words(from, words, 1, SetUse::kName);
  if (targets.front().path.size() == from.size()) {
    throw LineFaultError({words[0].column, "nothing is named", "what is to be deleted"});
  }
  tree->remove(std::move(targets.front()), number);
}

}  // namespace

SetPlace SetDocument::place_of(uint32_t xml_line) const {
  return xml_line > 0 && xml_line <= places.size() ? places[xml_line - 1] : SetPlace{};
}

SetDocument read_set_lines(std::string_view text, const SetPath& from) {
  SetDocument document;
  document.xml = kEnvelope;
  document.places.push_back({});
  Tree tree(&document);
  for (uint32_t number = 1; !text.empty(); ++number) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    try {
      read_line(line, number, from, &tree);
    } catch (const LineFaultError& error) {
      const LineFault& what = error.fault;
      fault(&document, {number, static_cast<uint32_t>(what.column)}, what.what, what.expected);
    }
  }
  if (document.faults.empty()) tree.write();
  document.xml += "</config>\n";
  return document;
}

}  // namespace polctl
