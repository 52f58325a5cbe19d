// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "support/paths.h"

namespace {

struct Pipe {
  int read = -1;
  int write = -1;
};

Pipe make_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) abort();
  return {ends[0], ends[1]};
}

Pipe make_terminal() {
  int ours;
  int theirs;
  if (openpty(&ours, &theirs, nullptr, nullptr, nullptr) != 0) abort();
  fcntl(ours, F_SETFD, FD_CLOEXEC);
  fcntl(theirs, F_SETFD, FD_CLOEXEC);
  return {ours, theirs};
}

std::vector<char*> pointers(const std::vector<std::string>& words) {
  std::vector<char*> result;
  result.reserve(words.size() + 1);
  for (const std::string& word : words) result.push_back(const_cast<char*>(word.c_str()));
  result.push_back(nullptr);
  return result;
}

// A child with these for its standard input, output and errors, in a bare environment.
pid_t spawn(const std::string& program, std::vector<std::string> args, std::vector<std::string> env,
            int in, int out, int err, unsigned descriptors = 0) {
  const pid_t child = fork();
  if (child < 0) abort();
  if (child > 0) return child;
  args.insert(args.begin(), program);
  env.insert(env.end(), {"TERM=xterm", "LC_ALL=C"});  // the first of a name counts
  for (const char* name :
       {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "NOTIFY_SOCKET"}) {
    if (const char* value = getenv(name)) env.push_back(std::string(name) + "=" + value);
  }
  const rlimit limit = {descriptors, descriptors};
  if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 ||
      (descriptors > 0 && setrlimit(RLIMIT_NOFILE, &limit) != 0) ||
      chdir((std::string(kGoldenDir) + "/polctl").c_str()) != 0) {
    _exit(126);
  }
  signal(SIGPIPE, SIG_DFL);
  execve(program.c_str(), pointers(args).data(), pointers(env).data());
  _exit(127);
}

int ended(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// How much of the input may be fed by now.
size_t feedable(const Invocation& invocation, const std::string& answered) {
  if (!invocation.in_turns) return invocation.input.size();
  size_t end = 0;
  for (auto lines = std::count(answered.begin(), answered.end(), '\n') + 1; lines > 0; --lines) {
    size_t newline = invocation.input.find('\n', end);
    if (newline == std::string::npos) return invocation.input.size();
    end = newline + 1;
  }
  return end;
}

// Feeds and drains the child at once, so that neither side waits for the other for ever.
void converse(const Invocation& invocation, int in, int out, int err, Outcome* outcome) {
  size_t fed = 0;
  useconds_t pause = invocation.pause ? 1100000 : 0;
  fcntl(in, F_SETFL, O_NONBLOCK);
  while (in >= 0 || out >= 0 || err >= 0) {
    size_t end = feedable(invocation, outcome->out);
    bool waiting = invocation.in_turns && fed == end;
    pollfd waits[3] = {{waiting ? -1 : in, POLLOUT, 0}, {out, POLLIN, 0}, {err, POLLIN, 0}};
    if (poll(waits, 3, 30000) <= 0) {
      ADD_FAILURE() << "polctl hangs";
      break;
    }
    if (waits[0].revents != 0) {
      size_t half = invocation.input.size() / 2;
      if (invocation.pause && fed >= half) usleep(std::exchange(pause, 0));
      if (pause > 0) end = half;
      ssize_t wrote = write(in, invocation.input.data() + fed, end - fed);
      if (wrote > 0) fed += static_cast<size_t>(wrote);
      if (wrote < 0 || fed == invocation.input.size()) close(std::exchange(in, -1));
    }
    auto drain = [](int* fd, std::string* text, size_t limit) {
      char buffer[65536];
      ssize_t got = read(*fd, buffer, std::min(sizeof buffer, limit - text->size()));
      if (got > 0) text->append(buffer, static_cast<size_t>(got));
      if (got <= 0 || text->size() == limit) close(std::exchange(*fd, -1));
    };
    if (waits[1].revents != 0) drain(&out, &outcome->out, invocation.read_at_most);
    if (waits[2].revents != 0) drain(&err, &outcome->err, SIZE_MAX);
  }
  for (int fd : {in, out, err}) {
    if (fd >= 0) close(fd);
  }
}

}  // namespace

Outcome run_polctl(const Invocation& invocation) {
  signal(SIGPIPE, SIG_IGN);
  Pipe in = make_pipe();
  Pipe out = invocation.terminal ? make_terminal() : make_pipe();
  Pipe err = invocation.terminal ? Pipe{-1, dup(out.write)} : make_pipe();
  int to = out.write;
  if (!invocation.output_file.empty()) {
    close(out.write);
    to = open(invocation.output_file.c_str(), O_WRONLY | O_CLOEXEC);
  }
  const pid_t child = spawn(kPolctlPath, invocation.args, invocation.env, in.read, to, err.write);
  close(in.read);
  close(to);
  close(err.write);
  Outcome outcome;
  converse(invocation, in.write, out.read, err.read, &outcome);
  outcome.status = ended(child);
  return outcome;
}

Running::Running(const std::string& program, const std::vector<std::string>& args, int err,
                 unsigned descriptors) {
  Pipe in = make_pipe();
  Pipe out = make_pipe();
  child_ = spawn(program, args, {}, in.read, out.write, err < 0 ? out.write : err, descriptors);
  for (int fd : {in.read, in.write, out.write}) close(fd);
  out_ = out.read;
}

std::string Running::next_line() {
  for (;;) {
    size_t end = read_.find('\n');
    if (end != std::string::npos) {
      std::string line = read_.substr(0, end);
      read_.erase(0, end + 1);
      return line;
    }
    pollfd wait = {out_, POLLIN, 0};
    char block[4096];
    ssize_t got = poll(&wait, 1, 30000) > 0 ? read(out_, block, sizeof block) : 0;
    if (got <= 0) return "";
    read_.append(block, static_cast<size_t>(got));
  }
}

void Running::fill() {
  // By a description of its own: the child's stays blocking.
  const int fd = open(("/proc/self/fd/" + std::to_string(out_)).c_str(), O_WRONLY | O_NONBLOCK);
  const std::string block(4096, '.');
  if (fd < 0) abort();
  for (size_t size = block.size(); size > 0; size /= 2) {
    while (write(fd, block.data(), size) > 0) {
    }
  }
  close(fd);
}

int Running::stop(int signal) {
  kill(child_, signal);
  return ended(std::exchange(child_, -1));
}

Running::~Running() {
  if (child_ > 0) stop(SIGKILL);
  close(out_);
}

std::string temporary_file(const std::string& content) {
  struct Files {
    std::vector<std::string> paths;
    ~Files() {
      for (const std::string& path : paths) unlink(path.c_str());
    }
  };
  static Files files;
  std::string path = testing::TempDir() + "polctl_test_XXXXXX";
  int fd = mkstemp(path.data());
  if (fd < 0) abort();
  files.paths.push_back(path);
  for (size_t done = 0; done < content.size();) {
    ssize_t wrote = write(fd, content.data() + done, content.size() - done);
    if (wrote <= 0) abort();
    done += static_cast<size_t>(wrote);
  }
  close(fd);
  return path;
}
