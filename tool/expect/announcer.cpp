// SPDX-License-Identifier: Apache-2.0
#include "announcer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <set>

#include "host/input_error.h"
#include "host/policy_source.h"
#include "tool/proof/proof_diff.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTaken = '\n';    // from the copy once it has taken the commit
constexpr char kAllTold = '\0';  // and at the end

void add_all(std::vector<std::string>* to, std::vector<std::string>* from) {
  to->insert(to->end(), std::make_move_iterator(from->begin()),
             std::make_move_iterator(from->end()));
}

std::vector<std::string> lines_of(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    size_t end = text.find('\n');
    if (end > 0) lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

void send(int pipe, std::string_view text) {
  while (!text.empty()) {
    ssize_t sent = write(pipe, text.data(), text.size());
    if (sent < 0 && errno != EINTR) return;
    if (sent > 0) text.remove_prefix(static_cast<size_t>(sent));
  }
}

// What is there by then, or as far as it goes.
std::string receive(int pipe, Clock::time_point taken_by, Clock::time_point told_by) {
  std::string text;
  char block[4096];
  for (;;) {
    auto left = (text.empty() ? taken_by : told_by) - Clock::now();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
    pollfd wanted = {pipe, POLLIN, 0};
    int ready = ms > 0 ? poll(&wanted, 1, static_cast<int>(ms)) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return text;
    ssize_t got = read(pipe, block, sizeof block);
    if (got <= 0) return text;
    text.append(block, static_cast<size_t>(got));
  }
}

}  // namespace

std::string Announcer::told_by_copy(const std::function<void()>& take, int pipe) const {
  Model before;
  before.read();
  take();
  send(pipe, {&kTaken, 1});
  Model after;
  after.read();
  std::set<std::string> names;
  for (const Model* model : {&before, &after}) {
    for (const PolicyModel& policy : model->policies()) names.insert(policy.name);
  }
  Bounds bounds;
  bounds.time = std::chrono::seconds(kSeconds);
  ProofDiff all;
  for (const std::string& name : names) {
    auto given = directions_.find(name);
    uint32_t direction = given != directions_.end() ? given->second : uint32_t{POL_DIR_IN};
    ProofDiff diff = compare(before, after, name, direction, bounds);
    std::move(diff.differences.begin(), diff.differences.end(),
              std::back_inserter(all.differences));
    add_all(&all.notes, &diff.notes);
    add_all(&all.unknown, &diff.unknown);
  }
  verify_after(all);
  Output text(Output::kNoFile);
  write_text(all, POL_DIR_IN, &text);
  return std::string(text.text());
}

std::vector<std::string> Announcer::changes(const std::function<void()>& take) const {
  size_t policies = policy_names(POL_KIND_ROUTE).size() + policy_names(POL_KIND_MEMBERSHIP).size();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {"not known: there is no pipe"};
  const pid_t copy = fork();
  if (copy == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      send(ends[1], told_by_copy(take, ends[1]));
    } catch (const std::exception& error) {
      send(ends[1], error.what());
    }
    send(ends[1], {&kAllTold, 1});
    _exit(0);
  }
  close(ends[1]);
  const Clock::time_point now = Clock::now();
  const auto seconds = static_cast<int64_t>(policies + 2) * kSeconds;
  std::string text;
  if (copy > 0) {
    text =
        receive(ends[0], now + std::chrono::seconds(kSeconds), now + std::chrono::seconds(seconds));
    kill(copy, SIGKILL);
    waitpid(copy, nullptr, 0);
  }
  close(ends[0]);
  if (copy < 0) return {"not known: there is no process for it"};
  const bool whole = !text.empty() && text.back() == kAllTold;
  if (whole) text.pop_back();
  std::vector<std::string> lines = lines_of(text);
  if (!whole) lines.emplace_back("not known: it takes too long, or the look at it broke off");
  return lines;
}

}  // namespace polctl
