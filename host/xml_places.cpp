// SPDX-License-Identifier: Apache-2.0
#include "xml_places.h"

#include <libxml/parser.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace polctl {

namespace {

struct Step {
  std::string name;
  std::vector<std::string> keys;
};

// "/a/b{x \"y z\"}" taken apart; keys in quotes have `"` and `\` escaped by `\`.
std::vector<Step> steps_of(const std::string& path) {
  std::vector<Step> steps;
  for (size_t at = 0; at < path.size();) {
    if (path[at] != '/') return steps;
    Step step;
    for (++at; at < path.size() && path[at] != '/' && path[at] != '{'; ++at) step.name += path[at];
    if (at < path.size() && path[at] == '{') {
      ++at;
      while (at < path.size() && path[at] != '}') {
        std::string key;
        bool quoted = path[at] == '"';
        if (quoted) ++at;
        for (; at < path.size(); ++at) {
          if (quoted ? path[at] == '"' : path[at] == ' ' || path[at] == '}') break;
          if (quoted && path[at] == '\\' && at + 1 < path.size()) ++at;
          key += path[at];
        }
        if (quoted) ++at;
        while (at < path.size() && path[at] == ' ') ++at;
        step.keys.push_back(std::move(key));
      }
      ++at;
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

std::string_view name_of(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

bool is_leaf_with(const xmlNode* node, std::string_view wanted) {
  if (node->type != XML_ELEMENT_NODE || node->children == nullptr) return false;
  if (node->children->type != XML_TEXT_NODE || node->children->content == nullptr) return false;
  std::string_view text = reinterpret_cast<const char*>(node->children->content);
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return wanted.empty();
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1) == wanted;
}

// Each key is the text of some leaf of the entry; its keys come before, or among, its other leaves.
bool has_keys(const xmlNode* entry, const std::vector<std::string>& keys) {
  return std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
    for (const xmlNode* leaf = entry->children; leaf != nullptr; leaf = leaf->next) {
      if (is_leaf_with(leaf, key)) return true;
    }
    return false;
  });
}

const xmlNode* child_at(const xmlNode* parent, const Step& step) {
  for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
    if (node->type == XML_ELEMENT_NODE && name_of(node) == step.name && has_keys(node, step.keys)) {
      return node;
    }
  }
  return nullptr;
}

// The node that a path leads to, or the last on the way; how many steps were taken goes to `depth`.
const xmlNode* node_at(xmlDoc* doc, const std::vector<Step>& steps, size_t* depth) {
  *depth = 0;
  const xmlNode* root = xmlDocGetRootElement(doc);
  if (root == nullptr || steps.empty()) return nullptr;
  const xmlNode* node = nullptr;
  if (name_of(root) == steps[0].name) {
    node = root;
  } else {
    node = child_at(root, steps[0]);  // below the envelope
  }
  while (node != nullptr && ++*depth < steps.size()) {
    const xmlNode* child = child_at(node, steps[*depth]);
    if (child == nullptr) break;
    node = child;
  }
  return node;
}

}  // namespace

XmlPlaces::XmlPlaces(const std::vector<std::string>& files) {
  constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_BIG_LINES |
                           XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  for (const std::string& name : files) {
    files_.push_back(
        {name, std::unique_ptr<xmlDoc, FreeDoc>(xmlReadFile(name.c_str(), nullptr, kOptions))});
  }
}

bool XmlPlaces::find(const std::string& path, std::string* file, uint32_t* line) const {
  std::vector<Step> steps = steps_of(path);
  size_t deepest = 0;
  for (const File& each : files_) {
    size_t depth = 0;
    const xmlNode* node = each.doc ? node_at(each.doc.get(), steps, &depth) : nullptr;
    if (node == nullptr || depth < deepest) continue;
    deepest = depth;
    *file = each.name;
    *line = static_cast<uint32_t>(xmlGetLineNo(node));
  }
  return deepest > 0;
}

}  // namespace polctl
