// SPDX-License-Identifier: Apache-2.0
//
// polctl - asks libpolicy what a policy does, from a shell. Each command is in a file of its own.
#include <csignal>
#include <cstdio>
#include <exception>

#include "command_line.h"
#include "host/address_text.h"
#include "host/input_error.h"

namespace {

int run(const std::vector<std::string>& words) {
  polctl::Output out;
  const std::vector<polctl::CommandRow> commands = polctl::command_table();
  polctl::CommandLine line;
  if (polctl::take_shell_words(words, &line.shell)) {
    line.command = "shell";
  } else {
    line = polctl::read_command_line(words);
  }
  line.shell.commands = &commands;
  if (line.command == "check") return polctl::run_check(line.check, &out);
  if (line.command == "convert") return polctl::run_convert(line.convert, &out);
  if (line.command == "diff") return polctl::run_diff(line.diff, &out);
  if (line.command == "dump") return polctl::run_dump(line.dump, &out);
  if (line.command == "document") return polctl::run_document(line.document, &out);
  if (line.command == "eval") return polctl::run_eval(line.eval, &out);
  if (line.command == "graph") return polctl::run_graph(line.graph, &out);
  if (line.command == "labels") return polctl::run_labels(line.labels, &out);
  if (line.command == "search") return polctl::run_search(line.search, &out);
  if (line.command == "serve") return polctl::run_serve(line.serve, &out);
  if (line.command == "shell") return polctl::run_shell(line.shell, &out);
  if (line.command == "test") return polctl::run_test(line.test, &out);
  if (line.command == "show") return polctl::run_show(line.show, &out);
  if (line.command == "report") return polctl::run_report(line.report, &out);
  if (line.command == "clear") return polctl::run_clear(line.clear, &out);
  if (line.command == "watch") return polctl::run_watch(line.watch, &out);
  out.write(line.output);
  out.flush();
  return polctl::kDone;
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away ends a command quietly; see output.h.
  signal(SIGPIPE, SIG_IGN);
  try {
    return run({argv + 1, argv + argc});
  } catch (const polctl::InternalError& error) {
    fprintf(stderr, "%s\n", polctl::printable_lines(error.what()).c_str());
    return polctl::kInternal;
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", polctl::printable_lines(error.what()).c_str());
    return polctl::kBadInput;
  }
}
