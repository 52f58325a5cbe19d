// SPDX-License-Identifier: Apache-2.0
//
// Runs programs as a user does, and keeps what they say.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// Exit statuses are those of a shell: 128 and the signal when one ended the program.
struct Outcome {
  int status = -1;
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

// Runs in the directory of polctl's goldens.
Outcome run_polctl(const Invocation& invocation);

// A program that goes on running, until it is stopped or forgotten.
class Running {
 public:
  // Its errors go to `err`, to where its output goes if that is -1. `descriptors` is how many it may
  // have, 0 as many as usual.
  explicit Running(const std::string& program, const std::vector<std::string>& args, int err = -1,
                   unsigned descriptors = 0);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  pid_t pid() const { return child_; }  // -1: it was stopped
  // The next line of its output; "" when none comes within 30 seconds.
  std::string next_line();
  // Leaves no room in its output: what it says next waits for a reader.
  void fill();
  // Sends a signal; its exit status.
  int stop(int signal);

 private:
  pid_t child_;
  int out_;
  std::string read_;
};

// Writes a file that lives as long as the test program.
std::string temporary_file(const std::string& content);

#endif
