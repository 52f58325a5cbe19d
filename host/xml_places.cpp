// SPDX-License-Identifier: Apache-2.0
#include "xml_places.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

#include "setlines/set_document.h"

namespace polctl {

namespace {

std::string_view name_of(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

// The text of a leaf without blanks around it; nothing for an element that is none.
std::optional<std::string_view> leaf_text(const xmlNode* node) {
  if (node->type != XML_ELEMENT_NODE || node->children == nullptr) return {};
  if (node->children->type != XML_TEXT_NODE || node->children->content == nullptr) return {};
  std::string_view text = reinterpret_cast<const char*>(node->children->content);
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Each key is the text of some leaf of the entry; its keys come before, or among, its other leaves.
bool has_keys(const xmlNode* entry, const std::vector<std::string>& keys) {
  return std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
    for (const xmlNode* leaf = entry->children; leaf != nullptr; leaf = leaf->next) {
      if (leaf_text(leaf) == key) return true;
    }
    return false;
  });
}

std::string entry_key(std::string_view list, std::string_view key) {
  std::string text(list);
  text += '\0';
  return text += key;
}

// Builds the tree as the parser does by itself, and keeps each element's column in its node.
void on_start(void* state, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
              int namespaces, const xmlChar** declared, int attributes, int defaulted,
              const xmlChar** values) {
  auto* parser = static_cast<xmlParserCtxtPtr>(state);
  xmlSAX2StartElementNs(state, name, prefix, uri, namespaces, declared, attributes, defaulted,
                        values);
  const xmlParserInput& input = *parser->input;
  const xmlChar* at = input.cur;
  while (at > input.base && *at != '<' && *at != '\n') --at;
  if (*at != '<' || parser->node == nullptr) return;
  auto column = static_cast<uintptr_t>(input.col - (input.cur - at));
  parser->node->_private = reinterpret_cast<void*>(column);
}

xmlDoc* read_with_columns(const char* path) {
  constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_BIG_LINES |
                           XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  xmlParserCtxtPtr parser = xmlNewParserCtxt();
  if (parser == nullptr) return nullptr;
  parser->sax->startElementNs = on_start;
  xmlDoc* doc = xmlCtxtReadFile(parser, path, nullptr, kOptions);
  xmlFreeParserCtxt(parser);
  return doc;
}

}  // namespace

struct XmlPlaces::Step {
  std::string name;
  std::vector<std::string> keys;
};

// "/a/b{x \"y z\"}" taken apart; keys in quotes have `"` and `\` escaped by `\`.
std::vector<XmlPlaces::Step> XmlPlaces::steps_of(const std::string& path) {
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

const xmlNode* XmlPlaces::child_at(File* file, const xmlNode* parent, const Step& step) {
  if (step.keys.empty()) {
    for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
      if (node->type == XML_ELEMENT_NODE && name_of(node) == step.name) return node;
    }
    return nullptr;
  }
  auto [made, is_new] = file->entries.try_emplace(parent);
  if (is_new) {
    for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
      if (node->type != XML_ELEMENT_NODE) continue;
      for (const xmlNode* leaf = node->children; leaf != nullptr; leaf = leaf->next) {
        if (auto text = leaf_text(leaf))
          made->second.emplace(entry_key(name_of(node), *text), node);
      }
    }
  }
  auto [first, last] = made->second.equal_range(entry_key(step.name, step.keys.front()));
  const xmlNode* found = nullptr;
  for (auto at = first; at != last; ++at) {
    bool earlier = found == nullptr || xmlGetLineNo(at->second) < xmlGetLineNo(found);
    if (earlier && has_keys(at->second, step.keys)) found = at->second;
  }
  return found;
}

// The node that a path leads to, or the last on the way; how many steps were taken goes to `depth`.
const xmlNode* XmlPlaces::node_at(File* file, const std::vector<Step>& steps, size_t* depth) {
  *depth = 0;
  const xmlNode* root = xmlDocGetRootElement(file->doc.get());
  if (root == nullptr || steps.empty()) return nullptr;
  // It may stand below the envelope.
  const xmlNode* node = name_of(root) == steps[0].name ? root : child_at(file, root, steps[0]);
  while (node != nullptr && ++*depth < steps.size()) {
    const xmlNode* child = child_at(file, node, steps[*depth]);
    if (child == nullptr) break;
    node = child;
  }
  return node;
}

XmlPlaces::XmlPlaces(const SourceFiles& files) {
  for (const SourceFile& file : files) {
    files_.push_back({file.name(),
                      file.set_lines(),
                      std::unique_ptr<xmlDoc, FreeDoc>(read_with_columns(file.xml_path().c_str())),
                      {}});
  }
}

bool XmlPlaces::find(const std::string& path, ConfigFault* fault) {
  std::vector<Step> steps = steps_of(path);
  size_t deepest = 0;
  for (File& each : files_) {
    size_t depth = 0;
    const xmlNode* node = each.doc ? node_at(&each, steps, &depth) : nullptr;
    if (node == nullptr || depth < deepest) continue;
    deepest = depth;
    fault->file = each.name;
    fault->line = static_cast<uint32_t>(xmlGetLineNo(node));
    fault->column = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(node->_private));
    if (each.set_lines == nullptr) continue;
    SetPlace place = each.set_lines->place_of(fault->line);
    fault->line = place.line;
    fault->column = place.column;
  }
  return deepest == steps.size();
}

}  // namespace polctl
