// SPDX-License-Identifier: Apache-2.0
#include "outside.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "host/input_error.h"

namespace polctl {

namespace {

// Of the child, which the signals of the terminal reach as they would without a shell around it.
[[noreturn]] void become(const std::vector<std::string>& words, bool reads_input, int out) {
  signal(SIGINT, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  if (!reads_input) {
    int nothing = open("/dev/null", O_RDONLY);
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
  }
  if (out >= 0) dup2(out, STDOUT_FILENO);
  std::vector<char*> args = {const_cast<char*>("polctl")};
  for (const std::string& word : words) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  execv("/proc/self/exe", args.data());
  _exit(127);
}

}  // namespace

int run_outside(const std::vector<std::string>& words, bool reads_input, std::string* output) {
  int ends[2] = {-1, -1};
  if (output != nullptr && pipe2(ends, O_CLOEXEC) != 0) throw InputError("no pipe");
  pid_t child = fork();
  if (child == 0) become(words, reads_input, ends[1]);
  if (output != nullptr) close(ends[1]);
  if (child < 0) throw InputError("no process (expected room for one)");
  // Ctrl-C is the command's; the shell waits for what becomes of it.
  auto before = signal(SIGINT, SIG_IGN);
  char block[4096];
  while (output != nullptr) {
    ssize_t got = read(ends[0], block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    output->append(block, static_cast<size_t>(got));
  }
  if (output != nullptr) close(ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  signal(SIGINT, before);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace polctl
