// SPDX-License-Identifier: Apache-2.0
#include "verbs.h"

#include <fmt/format.h>

#include <algorithm>

namespace polctl {

namespace {

constexpr const char* kNoted =
    "What it changes is committed at once. The words are those of set-lines; see\n"
    "libpolicy-configuration(5), or \"polctl shell\" and its ? and Tab.";

constexpr const char* kSetNotes =
    "Examples:\n"
    "  polctl set policy lists site-list spokes site 301\n"
    "  polctl set policy control-policy branch sequence 10 action accept\n\n";
constexpr const char* kDeleteNotes =
    "Examples:\n"
    "  polctl delete policy control-policy branch sequence 10\n"
    "  polctl delete policy lists site-list\n\n";
constexpr const char* kCopyNotes =
    "Example:\n"
    "  polctl copy policy control-policy branch sequence 10 to sequence 20\n\n"
    "The entry it goes to is a new one, beside the first.\n";

std::string noted(const char* notes) { return std::string(notes) + kNoted; }

}  // namespace

const std::vector<Verb>& shell_verbs() {
  static const std::string kSet = noted(kSetNotes);
  static const std::string kDelete = noted(kDeleteNotes);
  static const std::string kCopy = noted(kCopyNotes);
  static const std::vector<Verb> kVerbs = {
      {"show", "[WHAT]", "Look at configuration, commits, sessions, policies, ...", "", false,
       false, ""},
      {"configure", "[exclusive]", "Begin to change: a candidate of your own", "exclusive", false,
       false, ""},
      {"set", "PATH [VALUE]", "Set a leaf, or make an entry", "<PATH>", true, true, kSet.c_str()},
      {"delete", "PATH", "Delete a leaf, an entry, or all below a node", "<PATH>", true, true,
       kDelete.c_str()},
      {"copy", "PATH to PATH", "Copy an entry with all it holds", "<PATH>", true, true,
       kCopy.c_str()},
      {"edit", "PATH", "Go to a node, from which the words of other commands are read", "<PATH>",
       true, false, ""},
      {"up", "", "Go to the node around", "", true, false, ""},
      {"top", "", "Go to the root", "", true, false, ""},
      {"load", "merge|replace FILE|terminal", "Merge a file into the candidate, or replace it",
       "merge replace", true, true,
       "Examples:\n  polctl load merge branch.set\n  polctl load replace network.xml\n\n"
       "The file is XML, JSON or set-lines. What it changes is committed at once."},
      {"save", "FILE", "Write the configuration to a file", "<FILE>", false, true,
       "Example:\n  polctl save network.xml\n\n"
       "The name's end tells the form: .xml, .json, or set-lines for any other."},
      {"validate", "", "Would a commit be taken?", "", true, false, ""},
      {"commit", "[--announce] [confirmed MINUTES] [comment TEXT]",
       "Make the candidate running; confirm commits that wait for it",
       "comment confirmed --announce", true, true,
       "Example:\n  polctl commit\n\n"
       "Alone it confirms the commits that wait for it: there are no edits to commit."},
      {"rollback", "N", "Make the candidate what was running N commits ago", "<N>", true, true,
       "Example:\n  polctl rollback 1\n\n"
       "0 is now; \"polctl show commits\" tells how far back it goes. What it changes is\n"
       "committed at once."},
      {"discard", "", "Forget the candidate's edits", "", true, false, ""},
      {"exit", "", "Go up, stop changing, or leave the shell", "", false, false, ""},
      {"quit", "", "Leave the shell", "", false, false, ""},
      {"help", "[COMMAND]", "Tell the commands, or more of one", "", false, false, ""},
  };
  return kVerbs;
}

const Verb* find_verb(const std::string& name) {
  const std::vector<Verb>& all = shell_verbs();
  auto found =
      std::find_if(all.begin(), all.end(), [&](const Verb& each) { return name == each.name; });
  return found != all.end() ? &*found : nullptr;
}

const std::vector<Shown>& shown_words() {
  static const std::vector<Shown> kShown = {
      {"configuration", "what runs, or the candidate; | compare tells what differs",
       Shown::By::kShell},
      {"commits", "the commits that rollback reaches", Shown::By::kHostFirst},
      {"sessions", "who is connected to the agent", Shown::By::kShell},
      {"policy", "a policy as configured, its users, what is undefined, what was counted",
       Shown::By::kTool},
      {"lists", "the lists and objects, and who uses them", Shown::By::kTool},
      {"users", "the users that the library knows", Shown::By::kShell},
      {"memory", "the memory of the library", Shown::By::kShell},
      {"labels", "the labels written into data policies", Shown::By::kShell},
      {"status", "the agent, and the host if one is asked", Shown::By::kHostFirst}};
  return kShown;
}

const Shown* find_shown(const std::string& word) {
  const std::vector<Shown>& all = shown_words();
  auto found =
      std::find_if(all.begin(), all.end(), [&](const Shown& each) { return word == each.word; });
  return found != all.end() ? &*found : nullptr;
}

std::string verbs_text() {
  std::string text;
  for (const Verb& verb : shell_verbs()) {
    text += fmt::format("  {}{}{}\n      {}\n", verb.name, *verb.usage != '\0' ? " " : "",
                        verb.usage, verb.does);
  }
  text += "What show shows:\n";
  for (const Shown& shown : shown_words()) {
    text += fmt::format("  {:<14} {}\n", shown.word, shown.does);
  }
  return text;
}

}  // namespace polctl
