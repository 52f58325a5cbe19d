// SPDX-License-Identifier: Apache-2.0
#include "policy_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/address_text.h"
#include "host/output.h"
#include "host/setlines/set_words.h"
#include "policy/pol_test.h"

namespace polctl {

namespace {

constexpr size_t kMaxLine = 79;  // of a policy file

// A clause by its word in policy files and its leaf in configuration.
struct Clause {
  const char* text;
  const char* leaf;
};
constexpr Clause kMatches[] = {
    {"tag", "tag"},           {"preference", "preference"}, {"domain", "domain-id"},
    {"vpn-id", "vpn"},        {"site", "site-id"},          {"site-list", "site-list"},
    {"vpn-list", "vpn-list"}, {"tloc-list", "tloc-list"},   {"prefix-list", "prefix-list"}};
constexpr Clause kSets[] = {
    {"tag", "tag"}, {"preference", "preference"}, {"vpn-id", "vpn"}, {"vpn-list", "vpn-list"}};

template <size_t kSize>
const char* leaf_of(const Clause (&clauses)[kSize], const std::string& text) {
  for (const Clause& clause : clauses) {
    if (text == clause.text) return clause.leaf;
  }
  return nullptr;
}

template <size_t kSize>
const char* text_of(const Clause (&clauses)[kSize], const std::string& leaf) {
  for (const Clause& clause : clauses) {
    if (leaf == clause.leaf) return clause.text;
  }
  return nullptr;
}

[[noreturn]] void refuse(size_t column, const std::string& what) {
  throw LineFaultError({column, what, "what both languages can say"});
}

// The colors by number, as the schema counts them.
const std::vector<std::string>& color_words() {
  const agent::TreeNode* lists = config_schema().child("policy")->child("lists");
  return lists->child("color-list")->child("color")->keys.front()->words;
}

std::string color_word(const SetWord& number) {
  const std::vector<std::string>& words = color_words();
  size_t color = std::stoul(number.text);
  if (color >= words.size()) refuse(number.column, "color " + number.text + " has no word");
  return words[color];
}

std::vector<SetWord> split_at_blanks(std::string_view line) {
  std::vector<SetWord> words;
  for (size_t at = 0; at < line.size();) {
    size_t end = std::min(line.find(' ', at), line.size());
    if (end > at) {
      words.push_back({std::string(line.substr(at, end - at)), static_cast<uint32_t>(at + 1)});
    }
    at = end + 1;
  }
  return words;
}

// What stands between a policy's name and the end of its line.
struct PolicyLine {
  const std::vector<SetWord>& words;
  std::map<std::pair<std::string, std::string>, std::string>* match_types;
  size_t at = 2;
  std::string policy = quoted_word(words[1].text);
  std::string sequence = {};
  std::vector<std::string> lines = {};

  const SetWord& next() { return words[at++]; }
  void add(const std::string& text) {
    lines.push_back("set policy control-policy " + policy + (text.empty() ? "" : " ") + text);
  }
  void add_in_sequence(const std::string& text) { add("sequence " + sequence + " " + text); }
  void match();
  void set();
  void run();
};

std::string tloc_words(PolicyLine* line) {
  std::string address = line->next().text;
  return "tloc address " + address + " color " + color_word(line->next());
}

void PolicyLine::match() {
  const SetWord& type = next();
  for (const char* known : {"route", "tloc", "service"}) {
    if (type.text != known) continue;
    std::string& before = (*match_types)[{policy, sequence}];
    if (!before.empty() && before != type.text) {
      refuse(type.column, "the sequence changes from match " + before + " to match " + type.text);
    }
    before = type.text;
  }
  if (type.text == "packet") refuse(type.column, "\"match packet\" has no place in configuration");
  std::string about = "match " + type.text;
  if (at == words.size()) return add_in_sequence(about);
  const SetWord& clause = words[at];
  if (clause.text == "tloc") {
    ++at;
    return add_in_sequence(about + " " + tloc_words(this));
  }
  if (const char* leaf = leaf_of(kMatches, clause.text)) {
    ++at;
    return add_in_sequence(about + " " + leaf + " " + quoted_word(next().text));
  }
  bool is_group = clause.text == "set" || clause.text == "action" ||
                  clause.text == "default-action" || clause.text == "match" ||
                  clause.text == "sequence";
  if (!is_group) refuse(clause.column, "a route has no " + in_quotes(clause.text));
  add_in_sequence(about);
}

void PolicyLine::set() {
  const SetWord& clause = next();
  if (sequence.empty()) refuse(clause.column, "the default action sets nothing in configuration");
  if (clause.text == "tloc") return add_in_sequence("action set " + tloc_words(this));
  const char* leaf = leaf_of(kSets, clause.text);
  if (leaf == nullptr) refuse(clause.column, "unknown word " + in_quotes(clause.text));
  add_in_sequence("action set " + std::string(leaf) + " " + quoted_word(next().text));
}

void PolicyLine::run() {
  if (at == words.size()) return add("");
  while (at < words.size()) {
    const SetWord& word = next();
    if (word.text == "sequence") {
      sequence = next().text;
      if (at == words.size()) add("sequence " + sequence);
    } else if (word.text == "match") {
      match();
    } else if (word.text == "set") {
      set();
    } else if (word.text == "action") {
      add_in_sequence("action " + next().text);
    } else if (word.text == "default-action") {
      sequence.clear();
      add("default-action " + next().text);
    } else {
      refuse(word.column, "unknown word " + in_quotes(word.text));
    }
  }
}

bool all_digits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool is(const std::vector<std::string>& words, size_t at, const char* word) {
  return at < words.size() && words[at] == word;
}

// The clause from `at` on to the end; "" for one that has no words.
std::string clause_text(const std::vector<std::string>& words, size_t at, bool matches,
                        const std::vector<std::string>& next, bool* taken) {
  if (is(words, at, "tloc")) {
    if (!is(words, at + 1, "address")) refuse(0, "a TLOC with more than address and color");
    std::vector<std::string> color(words.begin(), words.begin() + static_cast<ptrdiff_t>(at + 1));
    color.emplace_back("color");
    *taken = next.size() == at + 3 && std::equal(color.begin(), color.end(), next.begin());
    if (!*taken) refuse(0, "a TLOC without a color");
    const std::vector<std::string>& colors = color_words();
    auto number = std::find(colors.begin(), colors.end(), next.back()) - colors.begin();
    return fmt::format("tloc {} {}", words[at + 2], number);
  }
  const char* text = nullptr;
  if (words.size() == at + 2) {
    text = matches ? text_of(kMatches, words[at]) : text_of(kSets, words[at]);
  }
  if (text == nullptr) refuse(0, "a policy file has no clause for this");
  return std::string(text) + " " + words[at + 1];
}

std::string policy_words(const std::vector<std::string>& words,
                         const std::vector<std::string>& next, bool* taken) {
  std::string line = "route-policy " + words[2];
  if (words.size() == 3) return line;
  if (words[3] == "default-action") return line + " default-action " + words[4];
  line += " sequence " + words[4];
  if (words.size() == 5) return line;
  if (words[5] == "match") {
    line += " match " + words[6];
    return words.size() == 7 ? line : line + " " + clause_text(words, 7, true, next, taken);
  }
  if (words.size() == 7) return line + " action " + words[6];  // action accept
  return line + " set " + clause_text(words, 7, false, next, taken);
}

std::string list_words(const std::vector<std::string>& words) {
  if (words.size() == 4) refuse(0, "an empty list");
  bool site = words[2] == "site-list" && words.size() == 6 && all_digits(words[5]);
  bool prefix = words[2] == "prefix-list" && words.size() == 6;
  if (words[2] == "site-list" && !site) refuse(0, "a range of sites");
  if (words[2] == "prefix-list" && !prefix) refuse(0, "a prefix with bounds");
  if (!site && !prefix) refuse(0, "a policy file has no " + words[2] + " that says this");
  return words[2] + " " + words[3] + " " + words[5];
}

}  // namespace

std::vector<std::string> FromPolicyText::set_lines(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  std::vector<SetWord> words = split_at_blanks(line);
  if (words.empty() || words[0].text.starts_with('#')) return {};
  for (const SetWord& word : words) {
    if (word.text.starts_with("delete")) refuse(word.column, "configuration deletes nothing");
  }
  const std::string& kind = words[0].text;
  if (kind == "site-list" || kind == "prefix-list") {
    const char* member = kind == "site-list" ? " site " : " prefix ";
    return {"set policy lists " + kind + " " + quoted_word(words[1].text) + member + words[2].text};
  }
  if (kind == "tloc-list") {
    refuse(1, "in configuration a TLOC of a list has an encapsulation");
  }
  if (kind == "vpn-list") refuse(1, "this line has no effect: a policy file fills no VPN list");
  if (kind != "route-policy") refuse(1, "configuration has no " + in_quotes(kind));
  PolicyLine policy{words, &match_types_};
  policy.run();
  return std::move(policy.lines);
}

std::string policy_line(const std::vector<std::string>& words, const std::vector<std::string>& next,
                        bool* taken) {
  *taken = false;
  std::string line;
  if (is(words, 1, "lists")) {
    line = list_words(words);
  } else if (is(words, 1, "control-policy")) {
    line = policy_words(words, next, taken);
  } else {
    refuse(0, "a policy file has no " + (words.size() > 1 ? words[1] : words[0]));
  }
  for (const std::string& word : words) {
    bool fits =
        word.size() < POL_TEST_TOKEN_SIZE && word.find_first_of(" \t\r\n") == std::string::npos;
    if (!fits || word.starts_with("delete"))
      refuse(0, "no word of a policy file is " + in_quotes(word));
  }
  if (line.size() > kMaxLine) refuse(0, fmt::format("it would be longer than {} bytes", kMaxLine));
  return line;
}

}  // namespace polctl
