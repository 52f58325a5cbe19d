// SPDX-License-Identifier: Apache-2.0
//
// The commands that look.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "host/address_text.h"
#include "host/input_error.h"
#include "shell.h"
#include "tool/command_line.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

std::string time_words(int64_t seconds) {
  if (seconds == 0) return "-";
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(static_cast<time_t>(seconds)));
}

void print_lines(const std::vector<std::string>& lines, Output* out) {
  for (const std::string& line : lines) out->write(printable(line) + "\n");
}

// The topic of "dump" for a word of "show"; null: none.
const char* dump_topic(const std::string& word) {
  constexpr struct {
    const char* word;
    const char* topic;
  } kTopics[] = {{"users", "users"}, {"memory", "memory"}};
  for (const auto& row : kTopics) {
    if (word == row.word) return row.topic;
  }
  return nullptr;
}

}  // namespace

void Shell::show(const Words& words) {
  const std::string what = words.size() > 1 ? words[1].text : "";
  const agent::TreeNode& here = at_.empty() ? config_schema() : *at_.back().node;
  bool is_path = configuring_ && (words.size() == 1 || what == "|" || what.starts_with("--") ||
                                  here.child(what) != nullptr);
  if (is_path) return show_configuration(words, 1);
  if (what == "configuration") return show_configuration(words, 2);
  if (what == "commits" || what == "sessions") {
    require_end(words, 2);
    if (rehearses_) return;
    return what == "commits" ? show_commits() : show_sessions();
  }
  if (what == "status" && options_.source.live.empty()) return show_status();
  std::vector<std::string> rest;
  for (size_t i = 2; i < words.size(); ++i) rest.push_back(words[i].text);
  std::vector<std::string> outside;
  if (const char* topic = dump_topic(what)) {
    outside = with_source({"dump", topic});
  } else if (what == "labels") {
    outside = with_source({"labels"});
  } else if (what == "status" || what == "policy" || what == "lists") {
    outside = {"show", what};
    outside.push_back(options_.source.live.empty()
                          ? "--agent" + (source_.agent_port.empty() ? "" : "=" + source_.agent_port)
                          : "--live=" + options_.source.live);
  } else {
    const SetWord& at = words.size() > 1 ? words[1] : words[0];
    std::vector<std::string> names;
    for (const Shown& each : shown_words()) names.emplace_back(each.word);
    throw LineFaultError(
        {at.column, words.size() > 1 ? "unknown word " + in_quotes(what) : "show what is missing",
         joined(names, ", ")});
  }
  outside.insert(outside.end(), rest.begin(), rest.end());
  run_outside_command(std::move(outside));
}

void Shell::show_configuration(const Words& words, size_t at) {
  Words path_words(words.begin(), words.begin() + static_cast<ptrdiff_t>(at));
  for (; at < words.size() && words[at].text != "|" && words[at].text != "--format"; ++at) {
    path_words.push_back(words[at]);
  }
  bool compares = false;
  unsigned back = configuring_ ? 0 : 1;
  std::string form = "tree";
  while (at < words.size()) {
    const SetWord& word = words[at];
    if (word.text == "--format") {
      form = at + 1 < words.size() ? words[at + 1].text : "";
      if (form != "tree" && form != "set" && form != "xml" && form != "json") {
        throw LineFaultError({word.column, "no such form", "--format tree, set, xml or json"});
      }
      at += 2;
      continue;
    }
    if (at + 1 >= words.size() || words[at + 1].text != "compare") {
      throw LineFaultError({word.column, "unknown word " + in_quotes(word.text), "| compare [N]"});
    }
    compares = true;
    at += 2;
    if (at == words.size() || words[at].text.starts_with("--")) continue;
    const std::string& text = words[at].text;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), back);
    if (error != std::errc() || end != text.data() + text.size() || back > 50) {
      throw LineFaultError({words[at].column, in_quotes(text) + " is no such number", "0 to 50"});
    }
    ++at;
  }
  if (compares && (form == "xml" || form == "json")) {
    throw LineFaultError({words[0].column, "a difference has no " + form, "--format tree or set"});
  }
  size_t first = words.size() > 1 && words[1].text == "configuration" ? 2 : 1;
  SetTarget target = resolve_words(at_, path_words, first, SetUse::kName).front();
  std::string path = target.path.empty() ? "/" : agent_path(target.path);
  if (rehearses_) return;
  std::string xml = session_->xml(configuring_ ? MAAPI_CANDIDATE : MAAPI_RUNNING, path);
  if (compares) {
    ConfigLines now = config_lines(xml);
    ConfigLines before;
    if (back == 0) {
      before = config_lines(session_->xml(MAAPI_RUNNING, path));
    } else {
      // A session of its own has the candidate that is rolled back.
      AgentSession other(session_->port());
      other.roll_back(back);
      before = config_lines(other.xml(MAAPI_CANDIDATE, path));
    }
    print_lines(form == "set" ? set_difference(before, now) : tree_difference(before, now), out_);
  } else if (form == "xml") {
    if (!xml.empty()) out_->write(xml + "\n");
  } else if (form == "json") {
    out_->write(config_as_json(xml));
  } else {
    ConfigLines lines = config_lines(xml);
    print_lines(form == "set" ? set_lines(lines) : tree_lines(lines), out_);
  }
}

void Shell::show_commits() const {
  AgentCommits commits = session_->commits();
  if (commits.waiting > 0) {
    out_->print("from commit {} on taken back in {} s unless confirmed\n\n", commits.waiting,
                commits.seconds);
  }
  Table table("rrllll", {{"back", Colour::Bold},
                         {"commit", Colour::Bold},
                         {"time", Colour::Bold},
                         {"user", Colour::Bold},
                         {"client", Colour::Bold},
                         {"comment", Colour::Bold}});
  size_t back = 0;
  for (const AgentCommit& commit : commits.all) {
    if (commit.number == 0) continue;
    table.add({{std::to_string(back++)},
               {std::to_string(commit.number)},
               {time_words(commit.time)},
               {printable(commit.user)},
               {printable(commit.client)},
               {printable(commit.comment)}});
  }
  table.print(out_, Palette(out_->fd()));
}

void Shell::show_sessions() const {
  Table table("lllll", {{"since", Colour::Bold},
                        {"user", Colour::Bold},
                        {"client", Colour::Bold},
                        {"from", Colour::Bold},
                        {"state", Colour::Bold}});
  for (const AgentUser& user : session_->users()) {
    std::vector<std::string> state;
    if ((user.flags & MAAPI_SESSION_OWN) != 0) state.emplace_back("this one");
    if ((user.flags & MAAPI_SESSION_EDITS) != 0) state.emplace_back("has edits");
    if ((user.flags & MAAPI_SESSION_LOCKS) != 0) state.emplace_back("holds the lock");
    table.add({{time_words(user.since)},
               {printable(user.user)},
               {printable(user.client)},
               {printable(user.source.empty() ? user.context : user.source)},
               {joined(state, ", ")}});
  }
  table.print(out_, Palette(out_->fd()));
}

// Of an agent alone; a running host says more.
void Shell::show_status() {
  if (rehearses_) return;
  AgentCommits commits = session_->commits();
  const AgentCommit& last = commits.all.front();
  const size_t users = session_->users().size();
  out_->print("agent        port {}, {} session{}\n", session_->port(), users,
              users == 1 ? "" : "s");
  out_->print("last commit  {}{}{}\n", last.number,
              last.time != 0 ? " at " + time_words(last.time) : "",
              last.user.empty() ? "" : " by " + printable(last.user));
  if (commits.waiting > 0) {
    out_->print("unconfirmed  from commit {} on, for {} s yet\n", commits.waiting, commits.seconds);
  }
  out_->print("host         none asked: \"polctl shell --live\" asks one\n");
}

void Shell::help(const Words& words) {
  if (words.size() > 1) {
    if (const CommandRow* row = outside(words[1].text)) {
      return run_outside_command({"help", row->name});
    }
    const Verb* verb = find_verb(words[1].text);
    if (verb == nullptr) {
      throw LineFaultError({words[1].column, "unknown word " + in_quotes(words[1].text),
                            joined(known_words(), ", ")});
    }
    if (!rehearses_) {
      out_->print("{}{}{}\n  {}\n", verb->name, *verb->usage != '\0' ? " " : "", verb->usage,
                  verb->does);
    }
    return;
  }
  if (rehearses_) return;
  Table table("ll", {{"command", Colour::Bold}, {"does", Colour::Bold}});
  for (const Candidate& each : candidates({}, "")) table.add({{each.word}, {each.help}});
  table.print(out_, Palette(out_->fd()));
}

}  // namespace polctl
