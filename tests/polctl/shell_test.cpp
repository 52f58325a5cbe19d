// SPDX-License-Identifier: Apache-2.0
//
// The shell against a yarrowd: scripts and single commands as their golden has them, and keys at a
// terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include "support/golden.h"
#include "support/paths.h"
#include "support/process.h"

namespace {

// An agent of its own that keeps nothing.
class Yarrowd {
 public:
  Yarrowd() : process_(kYarrowdPath, {"--port", "0"}) {
    std::string line;
    do line = process_.next_line();  // the log stands there too
    while (!line.empty() && !line.starts_with("yarrowd: port "));
    port_ = line.substr(line.rfind(' ') + 1);
  }
  ~Yarrowd() { EXPECT_EQ(process_.stop(SIGTERM), 0); }
  const std::string& port() const { return port_; }

 private:
  Running process_;
  std::string port_;
};

std::string masked(std::string text, const Yarrowd& agent) {
  text = std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)"), "TIME");
  text = std::regex_replace(text, std::regex("taken back in \\d+ s"), "taken back in N s");
  text = std::regex_replace(text, std::regex("TIME  \\S+ +polctl"), "TIME  USER  polctl");
  text = std::regex_replace(text, std::regex("by \\S+\n"), "by USER\n");
  return std::regex_replace(text, std::regex("port " + agent.port()), "port PORT");
}

TEST(ShellTest, ScriptsAndSingleCommandsSayWhatTheirGoldenHas) {
  std::string all;
  for_each_part("shell/scripts.in", [&all](const std::string& part) {
    Yarrowd agent;
    std::istringstream lines(part);
    std::string line;
    std::getline(lines, line);
    all += line + "\n";
    std::getline(lines, line);
    while (lines) {
      Invocation invocation;
      std::istringstream words(line.substr(2));
      for (std::string word; words >> word;) invocation.args.push_back(word);
      all += line + "\n";
      while (std::getline(lines, line) && !line.starts_with("$ ")) invocation.input += line + "\n";
      invocation.env = {"YARROW_IPC_PORT=" + agent.port()};
      Outcome outcome = run_polctl(invocation);
      all += masked(outcome.out, agent);
      if (!outcome.err.empty()) all += "--- stderr\n" + masked(outcome.err, agent);
      if (outcome.status != 0) all += "--- status " + std::to_string(outcome.status) + "\n";
    }
    all += "\n";
  });
  expect_golden("shell/scripts.ok", all);
}

// A shell at a pseudo-terminal.
class Terminal {
 public:
  explicit Terminal(const Yarrowd& agent) {
    winsize size = {24, 200, 0, 0};
    child_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (child_ != 0) return;
    std::string option = "--agent=" + agent.port();
    setenv("TERM", "vt100", 1);
    unsetenv("HOME");
    execl(kPolctlPath, "polctl", "shell", option.c_str(), nullptr);
    _exit(127);
  }
  ~Terminal() {
    close(fd_);
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Types the keys; what the terminal shows until `awaited` stands there, or all of 10 seconds.
  std::string type(const std::string& keys, const std::string& awaited) {
    [[maybe_unused]] ssize_t wrote = write(fd_, keys.data(), keys.size());
    std::string shown;
    pollfd watched = {fd_, POLLIN, 0};
    while (shown.find(awaited) == std::string::npos && poll(&watched, 1, 10'000) > 0) {
      char block[4096];
      ssize_t got = read(fd_, block, sizeof block);
      if (got <= 0) break;
      shown.append(block, static_cast<size_t>(got));
    }
    return shown;
  }

 private:
  int fd_ = -1;
  pid_t child_ = -1;
};

TEST(ShellTest, TabCompletesAndAQuestionTellsWhatTheSchemaAndTheCandidateKnow) {
  Yarrowd agent;
  Terminal terminal(agent);
  const struct {
    const char* keys;
    const char* shown;
  } kSteps[] = {
      {"", "polctl> "},
      {"conf\t\n", "polctl# "},
      {"set policy li\tsite-\tfar site 7\n", "polctl# "},
      {"set policy lists ?", "A named set of sites."},
      {"\x15set policy control-policy p sequence 10 match route site-list \t\n", "polctl# "},
      {"set policy control-policy p sequence 10 action ?", "reject"},
      {"ac\t\n", "polctl# "},
      {"set policy control-policy p sequence 10 match route pref?",
       "The prefix of the route, by list."},
      {"\x15"
       "edit policy control-policy \t\n",
       "[policy control-policy p]"},
      {"set sequence 10 match route tag 5x\n", "\"5x\" is not a number"},
      {"show --format set\n", "sequence 10 match route site-list far"},
      {"\x15"
       "eval --policy \t",
       "p "},
      {"--direction ?", "out"},
      {"\x15quit\n", "discarded"},
  };
  for (const auto& [keys, shown] : kSteps) {
    std::string text = terminal.type(keys, shown);
    EXPECT_NE(text.find(shown), std::string::npos) << "typed " << keys << ", shown " << text;
  }
}

}  // namespace
