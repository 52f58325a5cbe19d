/* SPDX-License-Identifier: Apache-2.0
 *
 * verbs.h - the shell's own commands, in one table: what the shell takes, completes and explains, what
 * may be given alone, and what help, manual pages and completion scripts tell of them.
 */
#ifndef TOOL_SHELL_VERBS_H
#define TOOL_SHELL_VERBS_H

#include <string>
#include <vector>

namespace polctl {

struct Verb {
  const char* name;
  const char* usage; /* the words after it */
  const char* does;
  const char* next; /* what completion offers there: words, or <PATH>, <FILE>, ... */
  bool changes;     /* after `configure` alone */
  bool alone;       /* may be one command of polctl's */
  const char* notes;
};
const std::vector<Verb>& shell_verbs();
const Verb* find_verb(const std::string& name); /* null: none */

/* What "show" shows, and who does: the shell, a running host where one is asked and else the shell, or
 * the tool's command of either. */
struct Shown {
  const char* word;
  const char* does;
  enum class By { kShell, kHostFirst, kTool } by;
};
const std::vector<Shown>& shown_words();
const Shown* find_shown(const std::string& word); /* null: none */

/* The commands with what they do, a line or two each, indented. */
std::string verbs_text();

}  // namespace polctl

#endif
