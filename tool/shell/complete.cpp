// SPDX-License-Identifier: Apache-2.0
//
// What may come next: from the table of commands, from the schema, and from what the candidate holds.
#include <algorithm>
#include <sstream>

#include "host/input_error.h"
#include "shell.h"
#include "tool/command_line.h"

namespace polctl {

namespace {

using agent::TreeNode;

constexpr size_t kMostNames = 200;  // that completion offers of one list

std::vector<Candidate> beginning_with(const std::string& last, std::vector<Candidate> all) {
  std::vector<Candidate> found;
  for (Candidate& each : all) {
    if (each.word.starts_with(last) || each.word.starts_with('<')) found.push_back(std::move(each));
  }
  return found;
}

// Walks the words as far as the schema knows them; what it cannot know, it takes.
struct Walk {
  SetPath path;
  const TreeNode* leaf = nullptr;  // whose value comes next
  const TreeNode* key = nullptr;   // which comes next
  bool lost = false;

  const TreeNode& here() const { return path.empty() ? config_schema() : *path.back().node; }
  void take(const SetWord& word);
};

void Walk::take(const SetWord& word) {
  if (leaf != nullptr) {
    leaf = nullptr;
    return;
  }
  if (key != nullptr) {
    SetStep& step = path.back();
    step.keys.push_back(word);
    bool more = step.keys.size() < step.node->keys.size();
    key = more ? step.node->keys[step.keys.size()] : nullptr;
    return;
  }
  const TreeNode* child = here().child(word.text);
  if (child == nullptr) {
    bool unnamed = std::any_of(here().nodes.begin(), here().nodes.end(), [&](const auto& node) {
      return node->unnamed &&
             std::find(node->words.begin(), node->words.end(), word.text) != node->words.end();
    });
    lost = lost || !unnamed;
  } else if (child->is_leaf()) {
    leaf = child->empty ? nullptr : child;
  } else {
    path.push_back({child, {}, word.column});
    if (child->kind == TreeNode::Kind::kList) key = child->keys.front();
  }
}

}  // namespace

// The first keys of a list's entries, in the candidate or in what runs.
std::vector<std::string> Shell::entries(const std::string& list_path,
                                        const std::string& name) const {
  std::vector<std::string> keys;
  std::string xml = session_->xml(configuring_ ? MAAPI_CANDIDATE : MAAPI_RUNNING, list_path);
  ConfigLines lines = config_lines(xml);
  for (const ConfigLine& line : lines) {
    if (!line.text.starts_with(name + " ")) continue;
    Words words = split_words(line.text);
    if (keys.size() < kMostNames && (keys.empty() || keys.back() != words[1].text)) {
      keys.push_back(words[1].text);
    }
  }
  return keys;
}

void Shell::add_value_candidates(const TreeNode& leaf, std::vector<Candidate>* found) const {
  for (const std::string& word : leaf.words) found->push_back({word, ""});
  if (!leaf.words.empty()) return;
  found->push_back({"<" + leaf.name + ">", leaf.expected});
  if (leaf.refers.empty()) return;
  const TreeNode& policy = *config_schema().child("policy");
  bool in_lists = policy.child("lists")->child(leaf.refers) != nullptr;
  std::string path = std::string("/policy/") + (in_lists ? "lists/" : "") + leaf.refers;
  for (const std::string& name : entries(path, leaf.refers)) {
    found->push_back({quoted_word(name), "a " + leaf.refers + " that is there"});
  }
}

std::vector<Candidate> Shell::path_candidates(const SetPath& from, const Words& words,
                                              const std::string& last) const {
  Walk walk{from};
  for (const SetWord& word : words) walk.take(word);
  std::vector<Candidate> found;
  if (walk.lost) return found;
  if (walk.leaf != nullptr) {
    add_value_candidates(*walk.leaf, &found);
  } else if (walk.key != nullptr) {
    // Of the first key those that are there; an entry's keys are never names of others'.
    add_value_candidates(*walk.key, &found);
    if (walk.path.back().keys.empty() && walk.key->words.empty()) {
      const std::string& name = walk.path.back().node->name;
      for (const std::string& key : entries(agent_path(walk.path), name)) {
        found.push_back({quoted_word(key), "is there"});
      }
    }
  } else {
    for (const auto& node : walk.here().nodes) {
      if (node->unnamed) {
        for (const std::string& word : node->words) found.push_back({word, node->description});
      } else {
        found.push_back({node->name, node->description});
      }
    }
  }
  return beginning_with(last, std::move(found));
}

std::vector<Candidate> Shell::policy_candidates() const {
  std::vector<Candidate> found;
  for (const char* kind :
       {"control-policy", "membership-policy", "data-policy", "app-route-policy"}) {
    for (const std::string& each : entries(std::string("/policy/") + kind, kind)) {
      found.push_back({quoted_word(each), kind});
    }
  }
  return found;
}

// What another command of the tool takes: behind an option that has a value that, else options and words.
std::vector<Candidate> Shell::option_candidates(const CommandRow& row,
                                                const std::string& before) const {
  std::vector<Candidate> found;
  for (const OptionRow& option : row.options) {
    bool valued = option.name == before && !option.value.empty() && option.value[0] != '[';
    if (!valued) continue;
    if (option.name == "--policy") return policy_candidates();
    for (const std::string& word : option.choices) found.push_back({word, ""});
    if (found.empty()) found.push_back({"<" + option.value + ">", option.help});
    return found;
  }
  for (const OptionRow& option : row.options) {
    if (option.name.starts_with("--")) found.push_back({option.name, option.help});
    for (const std::string& word : option.choices) {
      if (!option.name.starts_with("--")) found.push_back({word, ""});
    }
  }
  return found;
}

std::vector<Candidate> Shell::candidates(const Words& before, const std::string& last) const {
  std::vector<Candidate> found;
  if (before.empty()) {
    for (const Verb& verb : shell_verbs()) {
      if (!verb.changes || configuring_) found.push_back({verb.name, verb.does});
    }
    for (const CommandRow& row : *options_.commands) {
      if (outside(row.name) != nullptr) found.push_back({row.name, row.does});
    }
    return beginning_with(last, std::move(found));
  }
  const std::string& name = before[0].text;
  Words rest(before.begin() + 1, before.end());
  if (name == "show") {
    bool configuration = !rest.empty() && rest[0].text == "configuration";
    if (rest.empty()) {
      for (const Shown& row : shown_words()) found.push_back({row.word, row.does});
      found = beginning_with(last, std::move(found));
      if (!configuring_) return found;
    } else if (rest[0].text == "policy" && !configuring_ && rest.size() == 1) {
      return beginning_with(last, policy_candidates());
    } else if (!configuration && !configuring_) {
      return found;
    }
    if (configuration) rest.erase(rest.begin());
    for (Candidate& each : path_candidates(at_, rest, last)) found.push_back(std::move(each));
    return found;
  }
  if (const CommandRow* row = outside(name)) {
    return beginning_with(last, option_candidates(*row, rest.empty() ? "" : rest.back().text));
  }
  const Verb* verb = find(name);
  if (verb == nullptr) return found;
  if (name == "copy") {
    for (size_t i = rest.size(); i-- > 0;) {
      if (rest[i].text == "to")
        rest.erase(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(i) + 1);
    }
  }
  std::string next = verb->next;
  if (next == "<PATH>") return path_candidates(at_, rest, last);
  std::istringstream words(next);
  for (std::string word; rest.empty() && words >> word;) found.push_back({word, ""});
  if (name == "load" && rest.size() == 1) {
    found = {{"<FILE>", "XML, JSON or set-lines"}, {"terminal", "lines up to one with a . alone"}};
  }
  if (name == "commit" && rest.size() == 1 && rest[0].text == "--announce") {
    found = {{"comment", ""}, {"confirmed", ""}};
  }
  if (name == "commit" && !rest.empty() && rest.back().text == "confirmed") {
    found = {{"<MINUTES>", "after which it is taken back unless it is confirmed"}};
  }
  return beginning_with(last, std::move(found));
}

}  // namespace polctl
