/* SPDX-License-Identifier: Apache-2.0
 *
 * command_line.h - polctl's options: from words to the records of commands.h.
 */
#ifndef TOOL_COMMAND_LINE_H
#define TOOL_COMMAND_LINE_H

#include <map>
#include <string>
#include <vector>

#include "commands.h"

namespace polctl {

/* By name ("--port"), as they were written. */
using GivenOptions = std::map<std::string, std::vector<std::string>>;

/* Which command was asked for, and its options; the others' are as they begin. */
struct CommandLine {
  std::string command; /* "": none, for `output` says it all */
  std::string output;  /* help or version, for standard output */
  GivenOptions given;  /* the command's */
  EvalOptions eval;
  CheckOptions check;
  ConvertOptions convert;
  DiffOptions diff;
  TestOptions test;
  DumpOptions dump;
  WatchOptions watch;
  GraphOptions graph;
  DocumentOptions document;
  LabelsOptions labels;
  SearchOptions search;
  ServeOptions serve;
  ShellOptions shell;
  ShowOptions show;
  ClearOptions clear;
  ReportOptions report;
};

/* What the words of one option or argument are; what completion, manual pages and options files know
 * of the command line they know from here. */
struct OptionRow {
  std::string name;                 /* "--port"; "FILE" where it is a word without an option */
  std::string value;                /* what help calls its value: "PORT", "[=PORT]"; "" has none */
  std::vector<std::string> choices; /* the only words it may have; none: any */
  std::string help;
  bool repeats;
  bool required;
};

struct CommandRow {
  std::string name;
  std::string does;
  std::vector<OptionRow> options;
  std::string notes; /* examples, and what there is to say */
};

std::vector<CommandRow> command_table();

/* Throws InputError. */
CommandLine read_command_line(const std::vector<std::string>& words);

}  // namespace polctl

#endif
