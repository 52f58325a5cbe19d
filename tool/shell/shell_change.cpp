// SPDX-License-Identifier: Apache-2.0
//
// The commands that change.
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "callback_probe.h"
#include "host/address_text.h"
#include "host/input_error.h"
#include "host/setlines/set_document.h"
#include "host/source_file.h"
#include "outside.h"
#include "shell.h"

namespace polctl {

namespace {

constexpr unsigned kMerge = YARROW_CONFIG_XML | YARROW_CONFIG_MERGE;
constexpr unsigned kWhole = YARROW_CONFIG_XML;
constexpr unsigned kMaxMinutes = 10'080;

[[noreturn]] void fail(const SetWord& word, std::string what, std::string expected) {
  throw LineFaultError({word.column, std::move(what), std::move(expected)});
}

[[noreturn]] void missing(const Words& words, const std::string& what, std::string expected) {
  const SetWord& last = words.back();
  throw LineFaultError(
      {last.column + quoted_word(last.text).size(), what + " is missing", std::move(expected)});
}

unsigned number_of(const SetWord& word, unsigned lowest, unsigned highest) {
  unsigned number = 0;
  const char* end = word.text.data() + word.text.size();
  auto [stop, error] = std::from_chars(word.text.data(), end, number);
  if (error != std::errc() || stop != end || number < lowest || number > highest) {
    fail(word, in_quotes(word.text) + " is no such number",
         fmt::format("{} to {}", lowest, highest));
  }
  return number;
}

SetPath path_to(const SetPath& from, const Words& words, size_t first) {
  return resolve_words(from, words, first, SetUse::kName).front().path;
}

// A document's faults, and what the agent says of its XML, as errors with their lines of `file`.
void throw_faults_of(const SetDocument& document, std::vector<ConfigFault> faults,
                     const std::string& file) {
  for (ConfigFault& fault : faults) {
    SetPlace place = document.place_of(fault.line);
    fault.line = place.line;
    fault.column = place.column;
  }
  for (const SetFault& each : document.faults) {
    faults.push_back({"", each.place.line, each.place.column, "", each.what, each.expected});
  }
  for (ConfigFault& fault : faults) fault.file = file;
  if (!faults.empty()) throw_faults(faults);
}

}  // namespace

bool Shell::has_edits() const {
  for (const AgentUser& user : session_->users()) {
    if ((user.flags & MAAPI_SESSION_OWN) != 0) return (user.flags & MAAPI_SESSION_EDITS) != 0;
  }
  return false;
}

void Shell::leave_candidate() {
  session_->discard();
  if (exclusive_) session_->unlock();
  exclusive_ = configuring_ = false;
  at_.clear();
}

void Shell::configure(const Words& words) {
  bool locks = words.size() > 1 && words[1].text == "exclusive";
  require_end(words, locks ? 2 : 1);
  if (configuring_) throw InputError("you are changing already (expected set, commit, exit, ...)");
  if (locks) session_->lock();
  exclusive_ = locks;
  configuring_ = true;
}

// One line of set-lines, whose faults are this line's.
void Shell::take_line(const std::string& line, const Words& words) {
  SetDocument document = read_set_lines(line, at_);
  std::vector<ConfigFault> faults;
  if (document.faults.empty()) faults = session_->load(document.xml, kMerge);
  for (ConfigFault& fault : faults) fault.column = document.place_of(fault.line).column;
  for (const SetFault& each : document.faults) {
    faults.push_back({"", 1, each.place.column, "", each.what, each.expected});
  }
  if (faults.empty()) return;
  const ConfigFault& first = faults.front();
  std::string path = first.path.empty() ? "" : first.path + ": ";
  // What came before the words in the line that was made of them is not the operator's.
  throw LineFaultError(
      {std::max(first.column, words[0].column), path + first.what, first.expected});
}

void Shell::set(const Words& words) {
  // Told with the columns of the words as they were written.
  resolve_words(at_, words, 1, SetUse::kSet);
  std::string line(words[0].column - 1, ' ');
  for (const SetWord& word : words) {
    line.resize(std::max<size_t>(word.column - 1, line.size() + (line.empty() ? 0 : 1)), ' ');
    line += quoted_word(word.text);
  }
  take_line(line, words);
}

void Shell::erase(const Words& words) {
  std::vector<SetTarget> targets = resolve_words(at_, words, 1, SetUse::kName);
  if (targets.front().path.empty())
    missing(words, "what is deleted", "a path, or \"load replace\"");
  if (targets.front().value) {
    std::string line = "delete";
    for (size_t i = 1; i < words.size(); ++i) line += " " + quoted_word(words[i].text);
    take_line(line, words);
    return;
  }
  std::string path = agent_path(targets.front().path);
  // The agent finds nothing amiss with deleting what is empty.
  if (session_->xml(MAAPI_CANDIDATE, path).empty()) throw InputError(path + ": no such node");
  throw_agent_faults(session_->remove(path));
}

void Shell::copy(const Words& words) {
  auto to =
      std::find_if(words.begin(), words.end(), [](const SetWord& w) { return w.text == "to"; });
  if (to == words.end()) missing(words, "where it goes", "copy SEQUENCE to SEQUENCE");
  Words first(words.begin(), to);
  Words second(to, words.end());
  SetPath source = path_to(at_, first, 1);
  SetPath target = path_to(at_, second, 1);
  if (source.empty() || target.empty() || source.back().node != target.back().node ||
      source.back().keys.empty() || target.back().keys.empty()) {
    fail(*to, "what is copied and where it goes are no entries of one list",
         "copy sequence 10 to sequence 20");
  }
  std::string xml = session_->xml(MAAPI_CANDIDATE, agent_path(source));
  if (xml.empty()) throw InputError(agent_path(source) + ": no such node");
  if (!session_->xml(MAAPI_CANDIDATE, agent_path(target)).empty()) {
    throw InputError(agent_path(target) + ": is there already (expected a new one)");
  }
  const std::string from = "set " + words_of(source);
  std::string lines;
  for (const std::string& line : set_lines(config_lines(xml))) {
    if (line == from || line.starts_with(from + " ")) {
      lines += "set " + words_of(target) + line.substr(from.size()) + "\n";
    }
  }
  throw_agent_faults(session_->load(read_set_lines(lines).xml, kMerge));
}

void Shell::edit(const Words& words) {
  if (words.size() == 1) missing(words, "where to go", "a path");
  SetPath path = path_to(at_, words, 1);
  if (path.back().node->is_leaf()) fail(words.back(), "a leaf holds nothing", "a node that does");
  if (path.back().node->kind == agent::TreeNode::Kind::kList && path.back().keys.empty()) {
    missing(words, "the " + path.back().node->keys.front()->name,
            path.back().node->keys.front()->expected);
  }
  at_ = std::move(path);
}

void Shell::up(const Words& words) {
  require_end(words, 1);
  if (!at_.empty()) at_.pop_back();
}

void Shell::top(const Words& words) {
  require_end(words, 1);
  at_.clear();
}

void Shell::load(const Words& words) {
  if (words.size() < 2) missing(words, "how", "merge or replace");
  bool merges = words[1].text == "merge";
  if (!merges && words[1].text != "replace") {
    fail(words[1], "unknown word " + in_quotes(words[1].text), "merge or replace");
  }
  if (words.size() < 3) missing(words, "what is loaded", "a file, or terminal");
  require_end(words, 3);
  std::string name = words[2].text;
  std::optional<MemoryFile> typed;
  if (name == "terminal") {
    std::string text;
    for (auto line = more_lines_(); line && *line != "."; line = more_lines_()) {
      text += *line + "\n";
    }
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || (text[first] != '<' && text[first] != '{')) {
      return load_lines(read_set_lines(text), name, merges);
    }
    typed.emplace(text);
  }
  SourceFile file(typed ? typed->path() : name, "configuration");
  if (file.set_lines() != nullptr) return load_lines(*file.set_lines(), name, merges);
  if (file.kind() != SourceKind::kJson) require_configuration({file});
  std::string xml = file.kind() == SourceKind::kJson
                        ? config_from_json(file)
                        : read_whole(file.path(), kMaxSourceBytes, "configuration");
  std::vector<ConfigFault> faults = session_->load(xml, merges ? kMerge : kWhole);
  for (ConfigFault& fault : faults) fault.file = name;
  if (!faults.empty()) throw_faults(faults);
}

void Shell::load_lines(const SetDocument& document, const std::string& name, bool merges) {
  std::vector<ConfigFault> faults;
  if (document.faults.empty()) faults = session_->load(document.xml, merges ? kMerge : kWhole);
  throw_faults_of(document, std::move(faults), name);
}

void Shell::save(const Words& words) {
  if (words.size() < 2) missing(words, "the file", "its name; .xml and .json tell the form");
  require_end(words, 2);
  if (rehearses_) return;
  const std::string& name = words[1].text;
  std::string xml = session_->xml(configuring_ ? MAAPI_CANDIDATE : MAAPI_RUNNING, "/");
  std::string text;
  if (name.ends_with(".xml")) {
    text = xml + "\n";
  } else if (name.ends_with(".json")) {
    text = config_as_json(xml);
  } else {
    for (const std::string& line : set_lines(config_lines(xml))) text += line + "\n";
  }
  // Aside first: what stands there is lost only for what is whole.
  const std::string aside = name + ".new";
  std::ofstream file(aside, std::ios::binary | std::ios::trunc);
  file << text << std::flush;
  bool good = file.good();
  file.close();
  if (!good || rename(aside.c_str(), name.c_str()) != 0) {
    std::string why = strerror(errno);
    remove(aside.c_str());
    throw InputError(fmt::format("{}: {} (expected a file that can be written)", name, why));
  }
}

void Shell::validate(const Words& words) {
  require_end(words, 1);
  throw_agent_faults(session_->validate());
  if (!rehearses_) out_->print("the candidate is valid\n");
}

void Shell::commit(const Words& words) {
  size_t at = 1;
  unsigned minutes = 0;
  std::string comment;
  bool announces = at < words.size() && words[at].text == "--announce";
  if (announces) ++at;
  announces = announces || options_.announce;
  if (at < words.size() && words[at].text == "confirmed") {
    if (++at == words.size()) missing(words, "for how many minutes it waits", "1 to 10080");
    minutes = number_of(words[at++], 1, kMaxMinutes);
  }
  if (at < words.size() && words[at].text == "comment") {
    if (++at == words.size()) missing(words, "the comment", "a text");
    for (; at < words.size(); ++at) comment += (comment.empty() ? "" : " ") + words[at].text;
  }
  require_end(words, at);
  if (rehearses_) {
    throw_agent_faults(session_->validate());
    return;
  }
  std::optional<CallbackProbe> probe;
  if (has_edits()) probe.emplace(source_);
  std::string before;
  std::string after;
  if (announces) {
    before = session_->xml(MAAPI_RUNNING, "/");
    after = session_->xml(MAAPI_CANDIDATE, "/");
  }
  const bool waited = session_->commits().waiting > 0;
  std::vector<ConfigFault> faults;
  int64_t number = session_->commit(comment, minutes, &faults);
  throw_agent_faults(faults);
  if (number == 0) {
    out_->print("nothing to commit{}\n", !waited       ? ""
                                         : minutes > 0 ? "; what waits to be confirmed waits longer"
                                                       : "; what waited is confirmed");
    return;
  }
  out_->print("commit {}\n", number);
  if (minutes > 0) {
    out_->print("  taken back in {} minute{} unless \"commit\" confirms it\n", minutes,
                minutes == 1 ? "" : "s");
  } else if (waited) {
    out_->print("  what waited is confirmed\n");
  }
  if (auto called = probe ? probe->called() : std::nullopt) {
    std::vector<std::string> names;
    for (const std::string& name : *called) names.push_back(printable(name));
    out_->write(names.empty() ? "  calls nobody back\n"
                              : "  calls back the users of " + joined(names, ", ") + "\n");
  }
  if (announces) announce(before, after);
}

// What the exhaustive comparison says; where it ends without an answer it says so itself.
void Shell::announce(const std::string& before, const std::string& after) {
  auto file = [](const std::string& xml) {
    return MemoryFile(xml.empty() ? R"(<config xmlns="urn:norvik:config:1.0"/>)" : xml);
  };
  const MemoryFile old_file = file(before);
  const MemoryFile new_file = file(after);
  out_->flush();
  run_outside({"diff", old_file.path_outside(), new_file.path_outside()}, false);
}

void Shell::rollback(const Words& words) {
  if (words.size() < 2) missing(words, "how many commits back", "0 to 50");
  require_end(words, 2);
  session_->roll_back(number_of(words[1], 0, 50));
}

void Shell::discard(const Words& words) {
  require_end(words, 1);
  session_->discard();
}

void Shell::exit(const Words& words) {
  require_end(words, 1);
  if (words[0].text == "exit" && !at_.empty()) {
    at_.clear();
    return;
  }
  if (configuring_) {
    if (has_edits() && !rehearses_) out_->print("edits that were not committed are discarded\n");
    leave_candidate();
    if (words[0].text == "exit") return;
  }
  over_ = true;
}

}  // namespace polctl
