// SPDX-License-Identifier: Apache-2.0
#include "set_words.h"

#include <algorithm>

#include "host/address_text.h"
#include "host/near_word.h"
#include "host/output.h"

namespace polctl {

namespace {

using agent::TreeNode;

constexpr std::string_view kBlanks = " \t\r";

[[noreturn]] void fail(size_t column, std::string what, std::string expected) {
  throw LineFaultError({column, std::move(what), std::move(expected)});
}

char unescaped(char c) {
  switch (c) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return c;
  }
}

// The word in quotes that begins at `at`, which is moved behind it.
SetWord quoted_at(std::string_view line, size_t* at) {
  SetWord word{"", static_cast<uint32_t>(*at + 1), true};
  for (size_t i = *at + 1; i < line.size(); ++i) {
    char c = line[i];
    if (c == '"') {
      *at = i + 1;
      if (*at < line.size() && kBlanks.find(line[*at]) == std::string_view::npos) {
        fail(*at + 1, "text follows a closing quote", "a blank");
      }
      return word;
    }
    if (c == '\\') {
      if (++i == line.size()) break;
      if (std::string_view("\"\\nrt").find(line[i]) == std::string_view::npos) {
        fail(i, "unknown escape \"\\" + printable(line.substr(i, 1)) + "\"",
             R"(one of: \", \\, \n, \r, \t)");
      }
      c = unescaped(line[i]);
    }
    word.text += c;
  }
  fail(word.column, "a quote is not closed", "a second \"");
}

std::vector<std::string> names_in(const TreeNode& node) {
  std::vector<std::string> names;
  for (const auto& child : node.nodes) {
    if (child->unnamed) names.insert(names.end(), child->words.begin(), child->words.end());
    names.push_back(child->name);
  }
  return names;
}

const TreeNode* unnamed_leaf(const TreeNode& node, const std::string& word) {
  for (const auto& child : node.nodes) {
    if (child->unnamed &&
        std::find(child->words.begin(), child->words.end(), word) != child->words.end()) {
      return child.get();
    }
  }
  return nullptr;
}

[[noreturn]] void unknown(const TreeNode& node, const SetWord& word) {
  std::vector<std::string> names = names_in(node);
  std::vector<std::string> near = near_words(word.text, names);
  std::string what = "unknown word " + in_quotes(word.text);
  if (!near.empty()) what += ", did you mean " + near.front() + "?";
  // In an entry whose last leaf has its value the next word is one too many.
  std::string expected = names.empty() ? "the end of the line" : "one of: " + joined(names, ", ");
  fail(word.column, what, near.empty() ? expected : "");
}

struct Resolver {
  const std::vector<SetWord>& words;
  SetUse use;
  size_t at;
  SetPath path;
  std::vector<SetTarget> targets = {};

  bool done() const { return at == words.size(); }
  size_t end_column() const {
    if (words.empty()) return 1;
    const SetWord& last = words.back();
    return last.column + last.text.size() + (last.quoted ? 2 : 0);
  }
  const TreeNode& here() const { return path.empty() ? config_schema() : *path.back().node; }

  void take_keys();
  void take_leaf(const TreeNode& leaf, uint32_t column);
  void run();
};

void Resolver::take_keys() {
  SetStep& step = path.back();
  if (use == SetUse::kName && done()) return;  // all of the list
  for (const TreeNode* key : step.node->keys) {
    if (done()) {
      fail(end_column(), "the " + key->name + " of " + step.node->name + " is missing",
           key->expected);
    }
    step.keys.push_back(words[at++]);
  }
}

void Resolver::take_leaf(const TreeNode& leaf, uint32_t column) {
  SetTarget target{path, {}};
  target.path.push_back({&leaf, {}, column});
  bool takes_value = use == SetUse::kSet || leaf.kind == TreeNode::Kind::kLeafList;
  if (takes_value && !leaf.empty) {
    if (!done()) {
      target.value = words[at++];
    } else if (use == SetUse::kSet) {
      fail(end_column(), "the value of " + leaf.name + " is missing", leaf.expected);
    }
  }
  targets.push_back(std::move(target));
  if (use == SetUse::kName && !done()) {
    fail(words[at].column, "unknown word " + in_quotes(words[at].text), "the end of the line");
  }
}

void Resolver::run() {
  while (!done()) {
    const SetWord& word = words[at];
    const TreeNode& node = here();
    const TreeNode* child = node.child(word.text);
    if (child == nullptr) {
      if (const TreeNode* leaf = unnamed_leaf(node, word.text)) {
        if (use == SetUse::kName) ++at;  // "delete ... action accept" names the leaf
        take_leaf(*leaf, word.column);
        continue;
      }
      unknown(node, word);
    }
    ++at;
    if (child->is_leaf()) {
      take_leaf(*child, word.column);
      continue;
    }
    path.push_back({child, {}, word.column});
    if (child->kind == TreeNode::Kind::kList) take_keys();
  }
}

}  // namespace

std::vector<SetWord> split_words(std::string_view line) {
  std::vector<SetWord> words;
  for (size_t at = 0; at < line.size();) {
    if (kBlanks.find(line[at]) != std::string_view::npos) {
      ++at;
    } else if (line[at] == '#') {
      break;
    } else if (line[at] == '"') {
      words.push_back(quoted_at(line, &at));
    } else {
      size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
      words.push_back({std::string(line.substr(at, end - at)), static_cast<uint32_t>(at + 1)});
      at = end;
    }
  }
  return words;
}

std::string quoted_word(std::string_view text) {
  bool plain = !text.empty() && text.find_first_of(" \t\r\n\"\\#") == std::string_view::npos;
  if (plain) return std::string(text);
  std::string word = "\"";
  for (char c : text) {
    constexpr std::string_view kControls = "\n\r\t";
    size_t control = kControls.find(c);
    if (control != std::string_view::npos) {
      word += '\\';
      word += "nrt"[control];
      continue;
    }
    if (c == '"' || c == '\\') word += '\\';
    word += c;
  }
  return word + '"';
}

const agent::TreeNode& config_schema() {
  std::string error;
  const TreeNode* root = agent::schema_tree(&error);
  if (root == nullptr) throw InputError("polctl: error: no schema: " + error + " (expected one)");
  return *root;
}

std::vector<SetTarget> resolve_words(const SetPath& from, const std::vector<SetWord>& words,
                                     size_t first, SetUse use) {
  Resolver resolver{words, use, first, from};
  resolver.run();
  bool ends_in_node =
      resolver.targets.empty() || resolver.path.size() + 1 > resolver.targets.back().path.size();
  bool sets_nothing = resolver.path.size() <= from.size() ||
                      resolver.path.back().node->kind != TreeNode::Kind::kList;
  if (ends_in_node && use == SetUse::kSet && sets_nothing) {
    fail(resolver.end_column(), "nothing is set",
         "one of: " + joined(names_in(resolver.here()), ", "));
  }
  if (ends_in_node) resolver.targets.push_back({resolver.path, {}});
  return std::move(resolver.targets);
}

std::string agent_path(const SetPath& path) {
  std::string text;
  for (const SetStep& step : path) {
    text += "/" + step.node->name;
    if (step.keys.empty()) continue;
    text += '{';
    for (size_t i = 0; i < step.keys.size(); ++i) {
      const std::string& key = step.keys[i].text;
      bool plain = !key.empty() && key.find_first_of(" {}\"\\") == std::string::npos;
      text += i > 0 ? " " : "";
      text += plain ? key : "\"";
      for (size_t at = 0; !plain && at < key.size(); ++at) {
        if (key[at] == '"' || key[at] == '\\') text += '\\';
        text += key[at];
      }
      text += plain ? "" : "\"";
    }
    text += '}';
  }
  return text;
}

std::string words_of(const SetPath& path) {
  std::string text;
  for (const SetStep& step : path) {
    if (!text.empty()) text += ' ';
    text += step.node->name;
    for (const SetWord& key : step.keys) text += ' ' + quoted_word(key.text);
  }
  return text;
}

}  // namespace polctl
