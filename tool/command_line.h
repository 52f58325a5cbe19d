/* SPDX-License-Identifier: Apache-2.0
 *
 * command_line.h - polctl's options: from words to the records of commands.h.
 */
#ifndef TOOL_COMMAND_LINE_H
#define TOOL_COMMAND_LINE_H

#include <string>
#include <vector>

#include "commands.h"

namespace polctl {

/* Which command was asked for, and its options; the others' are as they begin. */
struct CommandLine {
  std::string command; /* "": none, for `output` says it all */
  std::string output;  /* help or version, for standard output */
  EvalOptions eval;
  CheckOptions check;
  DiffOptions diff;
  DumpOptions dump;
  WatchOptions watch;
  GraphOptions graph;
  DocumentOptions document;
  LabelsOptions labels;
  ServeOptions serve;
  ShowOptions show;
  ClearOptions clear;
};

/* Throws InputError. */
CommandLine read_command_line(const std::vector<std::string>& words);

}  // namespace polctl

#endif
