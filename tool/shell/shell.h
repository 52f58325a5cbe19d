/* SPDX-License-Identifier: Apache-2.0
 *
 * shell.h - an operator's commands to an agent, one a line, whoever feeds them.
 *
 * The shell looks (at what runs) or, after `configure`, changes: then it has a candidate, and words are
 * read from the node that `edit` leads to. What a line does wrong is thrown: as LineFaultError where it
 * has a column, else as InputError; the shell goes on as if the line had not been.
 */
#ifndef TOOL_SHELL_SHELL_H
#define TOOL_SHELL_SHELL_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent_session.h"
#include "host/output.h"
#include "host/setlines/config_lines.h"
#include "host/setlines/set_words.h"
#include "tool/commands.h"
#include "verbs.h"

namespace polctl {

struct SetDocument;

/* What may come next, and what it means. */
struct Candidate {
  std::string word; /* "<...>" for one that has to be made up */
  std::string help;
};

using Words = std::vector<SetWord>;

class Shell {
 public:
  /* `more_lines` gives the lines after a "load ... terminal", without their ends; none at the end. */
  using MoreLines = std::function<std::optional<std::string>()>;

  Shell(const ShellOptions& options, Output* out, MoreLines more_lines);
  ~Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  void run(std::string_view line);
  void run_words(const Words& words);
  bool over() const { return over_; }
  bool changes() const { return configuring_; }
  std::string prompt() const;

  /* For the last, maybe unfinished, of the words; "" after a blank. */
  std::vector<Candidate> candidates(const Words& before, const std::string& last) const;

  /* Tries the lines that follow without committing and without other commands; then all is as it was. */
  void rehearse(bool on);

 private:
  using Act = void (Shell::*)(const Words& words);
  static Act act_of(const Verb& verb);
  /* Null: none, or not before `configure`. */
  const Verb* find(const std::string& word) const;
  const CommandRow* outside(const std::string& word) const;
  std::vector<std::string> known_words() const;
  void require_end(const Words& words, size_t at) const;

  /* shell_change.cpp */
  void configure(const Words& words);
  void set(const Words& words);
  void erase(const Words& words);
  void copy(const Words& words);
  void edit(const Words& words);
  void up(const Words& words);
  void top(const Words& words);
  void load(const Words& words);
  void load_lines(const SetDocument& document, const std::string& name, bool merges);
  void save(const Words& words);
  void validate(const Words& words);
  void commit(const Words& words);
  void rollback(const Words& words);
  void discard(const Words& words);
  void exit(const Words& words);
  void announce(const std::string& before, const std::string& after);
  void take_line(const std::string& line, const Words& words);
  void leave_candidate();
  bool has_edits() const;

  /* shell_show.cpp */
  void show(const Words& words);
  void show_configuration(const Words& words, size_t at);
  void show_commits() const;
  void show_sessions() const;
  void show_status();
  void help(const Words& words);

  void run_outside_command(std::vector<std::string> words);
  std::vector<std::string> with_source(std::vector<std::string> words) const;
  std::vector<Candidate> path_candidates(const SetPath& from, const Words& words,
                                         const std::string& last) const;
  std::vector<Candidate> policy_candidates() const;
  std::vector<Candidate> option_candidates(const CommandRow& row, const std::string& before) const;
  void add_value_candidates(const agent::TreeNode& leaf, std::vector<Candidate>* found) const;
  std::vector<std::string> entries(const std::string& list_path, const std::string& name) const;

  const ShellOptions& options_;
  Output* out_;
  MoreLines more_lines_;
  PolicyOptions source_; /* the agent, for whoever asks it as other commands do */
  std::unique_ptr<AgentSession> session_;
  SetPath at_; /* where `edit` leads to */
  bool configuring_ = false;
  bool exclusive_ = false;
  bool over_ = false;
  bool rehearses_ = false;
};

/* Faults of the agent as one error, without places. Throws nothing for none. */
void throw_agent_faults(const std::vector<ConfigFault>& faults);

}  // namespace polctl

#endif
