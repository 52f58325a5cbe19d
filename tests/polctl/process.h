// SPDX-License-Identifier: Apache-2.0
//
// Runs polctl as a user does, and keeps what it says.
#ifndef TESTS_POLCTL_PROCESS_H
#define TESTS_POLCTL_PROCESS_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

struct Outcome {
  int status = -1;  // exit status, or 128 and the signal
  std::string out;
  std::string err;  // empty on a terminal, where both are one
};

struct Invocation {
  std::vector<std::string> args;
  std::string input;
  std::vector<std::string> env = {};  // "NAME=value", added to a bare environment
  bool terminal = false;              // standard output and error are a pseudo-terminal
  bool pause = false;                 // for more than a second when half of the input is fed
  bool in_turns = false;              // a line of input is fed once the one before it was answered
  size_t read_at_most = SIZE_MAX;     // then standard output is closed
  std::string output_file = {};       // standard output goes there instead
};

// Runs in the directory of the goldens.
Outcome run_polctl(const Invocation& invocation);

// A polctl that goes on running, until it is stopped or forgotten.
class RunningPolctl {
 public:
  RunningPolctl(pid_t child, int out) : child_(child), out_(out) {}
  ~RunningPolctl();
  RunningPolctl(const RunningPolctl&) = delete;
  RunningPolctl& operator=(const RunningPolctl&) = delete;

  // The next line of its output and errors; "" when none comes within 30 seconds.
  std::string next_line();
  void signal(int number);
  // Leaves no room in its output: what it says next waits for a reader.
  void fill();
  // Sends a signal; its exit status, or 128 and the signal that ended it.
  int stop(int signal);

 private:
  pid_t child_;
  int out_;
  std::string read_;
};
std::unique_ptr<RunningPolctl> start_polctl(const std::vector<std::string>& args);

// Writes a file that lives as long as the test program.
std::string temporary_file(const std::string& content);

#endif
