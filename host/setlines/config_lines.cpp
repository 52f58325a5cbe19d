// SPDX-License-Identifier: Apache-2.0
#include "config_lines.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <unordered_set>

#include "host/input_error.h"
#include "set_words.h"

namespace polctl {

namespace {

using agent::TreeNode;

struct FreeDoc {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

std::string content_of(const xmlNode* node) {
  std::string text;
  for (const xmlNode* part = node->children; part != nullptr; part = part->next) {
    if (part->content != nullptr) text += reinterpret_cast<const char*>(part->content);
  }
  return text;
}

const char* name_of(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

bool is_key(const TreeNode& list, std::string_view name) {
  return std::any_of(list.keys.begin(), list.keys.end(),
                     [&](const TreeNode* key) { return key->name == name; });
}

// The keys of an entry as words; the agent writes them first and in order.
std::string key_words(const TreeNode& list, const xmlNode* entry) {
  std::string words;
  for (const xmlNode* leaf = entry->children; leaf != nullptr; leaf = leaf->next) {
    if (is_key(list, name_of(leaf))) words += " " + quoted_word(content_of(leaf));
  }
  return words;
}

// Whether a leaf's value may stand without its name: not where it is the name of another node.
bool stands_unnamed(const TreeNode& leaf, const std::string& value) {
  return leaf.unnamed && leaf.parent->child(value) == nullptr;
}

void add_lines(const TreeNode& schema, const xmlNode* parent, uint32_t depth, ConfigLines* lines) {
  for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE || is_key(schema, name_of(node))) continue;
    const TreeNode* known = schema.child(name_of(node));
    if (known == nullptr) continue;
    if (known->is_leaf()) {
      std::string value = content_of(node);
      std::string text = stands_unnamed(*known, value) ? "" : known->name;
      if (!known->empty) text += (text.empty() ? "" : " ") + quoted_word(value);
      lines->push_back({depth, std::move(text)});
      continue;
    }
    lines->push_back({depth, known->name + key_words(*known, node)});
    add_lines(*known, node, depth + 1, lines);
  }
}

bool holds_more(const ConfigLines& lines, size_t i) {
  return i + 1 < lines.size() && lines[i + 1].depth > lines[i].depth;
}

// Calls take(i, path) for each line with the words of all around it and its own.
template <typename Take>
void each_path(const ConfigLines& lines, Take take) {
  std::vector<size_t> ends;  // of the path's parts
  std::string path;
  for (size_t i = 0; i < lines.size(); ++i) {
    ends.resize(lines[i].depth);
    path.resize(ends.empty() ? 0 : ends.back());
    if (!path.empty()) path += ' ';
    path += lines[i].text;
    ends.push_back(path.size());
    take(i, path);
  }
}

struct Line {
  uint32_t depth = 0;
  std::string path;  // who it is
  std::string text;
};

// Both sides in one order: what is gone before what came, at the same place. `mark` is ' ' for what
// both have.
template <typename Take>
void merge(const std::vector<Line>& before, const std::vector<Line>& after, Take take) {
  std::unordered_set<std::string_view> in_before;
  std::unordered_set<std::string_view> in_after;
  for (const Line& line : before) in_before.insert(line.path);
  for (const Line& line : after) in_after.insert(line.path);
  size_t i = 0;
  size_t j = 0;
  while (i < before.size() || j < after.size()) {
    if (i < before.size() && j < after.size() && before[i].path == after[j].path) {
      take(' ', before[i]);
      ++i, ++j;
    } else if (i < before.size() && in_after.count(before[i].path) == 0) {
      take('-', before[i++]);
    } else if (j < after.size() && in_before.count(after[j].path) == 0) {
      take('+', after[j++]);
    } else {  // both have it, elsewhere: the order of a list that has one
      if (i < before.size()) take('-', before[i++]);
      if (j < after.size()) take('+', after[j++]);
    }
  }
}

std::vector<Line> as_lines(const std::vector<std::string>& texts) {
  std::vector<Line> lines;
  lines.reserve(texts.size());
  for (const std::string& text : texts) lines.push_back({0, text, text});
  return lines;
}

std::vector<Line> tree_paths(const ConfigLines& lines) {
  std::vector<Line> paths;
  paths.reserve(lines.size());
  each_path(lines, [&](size_t i, const std::string& path) {
    paths.push_back({lines[i].depth, path, lines[i].text});
  });
  return paths;
}

}  // namespace

ConfigLines config_lines(const std::string& xml) {
  ConfigLines lines;
  if (xml.empty()) return lines;
  constexpr int kOptions =
      XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  std::unique_ptr<xmlDoc, FreeDoc> doc(
      xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, kOptions));
  const xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (root == nullptr) throw InputError("agent: error: it saved no XML (expected configuration)");
  add_lines(config_schema(), root, 0, &lines);
  return lines;
}

std::vector<std::string> set_lines(const ConfigLines& lines) {
  std::vector<std::string> texts;
  each_path(lines, [&](size_t i, const std::string& path) {
    if (!holds_more(lines, i)) texts.push_back("set " + path);
  });
  return texts;
}

std::vector<std::string> tree_lines(const ConfigLines& lines) {
  std::vector<std::string> texts;
  texts.reserve(lines.size());
  for (const ConfigLine& line : lines) {
    texts.push_back(std::string(size_t{2} * line.depth, ' ') + line.text);
  }
  return texts;
}

std::vector<std::string> set_difference(const ConfigLines& before, const ConfigLines& after) {
  std::vector<std::string> texts;
  merge(as_lines(set_lines(before)), as_lines(set_lines(after)), [&](char mark, const Line& line) {
    if (mark != ' ') texts.push_back(std::string(1, mark) + " " + line.text);
  });
  return texts;
}

std::vector<std::string> tree_difference(const ConfigLines& before, const ConfigLines& after) {
  std::vector<std::string> texts;
  std::vector<std::string> around;  // what encloses the next line
  size_t told = 0;                  // of these
  auto add = [&](char mark, uint32_t depth, const std::string& text) {
    texts.push_back(std::string(1, mark) + " " + std::string(size_t{2} * depth, ' ') + text);
  };
  merge(tree_paths(before), tree_paths(after), [&](char mark, const Line& line) {
    around.resize(line.depth);
    told = std::min<size_t>(told, line.depth);
    if (mark != ' ') {
      for (; told < around.size(); ++told) {
        add(' ', static_cast<uint32_t>(told), around[told]);
      }
      add(mark, line.depth, line.text);
      told = line.depth + 1;
    }
    around.push_back(line.text);
  });
  return texts;
}

std::string config_as_json(const std::string& xml) {
  std::string json;
  std::string error;
  if (!agent::json_from_xml(xml, &json, &error)) throw InputError("polctl: error: " + error);
  return json;
}

std::string config_from_json(const SourceFile& file) {
  std::string xml;
  std::string error;
  std::string json = read_whole(file.path(), kMaxSourceBytes, "configuration");
  if (!agent::xml_from_json(json, &xml, &error)) {
    throw InputError(file.name() + ": error: " + error +
                     " (expected configuration as RFC 7951 writes it)");
  }
  return xml;
}

}  // namespace polctl
