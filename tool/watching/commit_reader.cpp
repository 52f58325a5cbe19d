// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/commit_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/input_error.h"
#include "host/setlines/config_lines.h"

namespace polctl {

namespace {

constexpr const char* kTooOld = "the agent does not keep it any more";

constexpr int kAttempts = 5;

CommitDetail no_lines(const std::string& problem) {
  CommitDetail detail;
  detail.problem = problem;
  return detail;
}

std::vector<ConfigLines> read_entries(ConfigSession* session,
                                      const std::vector<ChangedEntry>& entries) {
  std::vector<ConfigLines> read;
  for (size_t i = 0; i < std::min(entries.size(), kEntriesRead); ++i) {
    read.push_back(config_lines(session->save(entries[i].path)));
  }
  return read;
}

CommitDetail difference(ConfigSession* session, int64_t from, int64_t number,
                        const std::vector<ChangedEntry>& entries) {
  std::vector<ConfigLines> before;
  std::vector<ConfigLines> after;
  for (int attempt = 0;; ++attempt) {
    if (attempt == kAttempts) return no_lines("others commit too fast");
    int64_t now = session->commit_id();
    // An agent that began anew counts from the beginning.
    if (now < number || !session->look_back(now - number)) return no_lines(kTooOld);
    after = read_entries(session, entries);
    if (!session->look_back(now - from)) return no_lines(kTooOld);
    before = read_entries(session, entries);
    if (session->commit_id() == now) break;
  }
  CommitDetail detail;
  for (size_t i = 0; i < before.size(); ++i) {
    std::vector<std::string> lines = set_difference(before[i], after[i]);
    detail.lines.insert(detail.lines.end(), lines.begin(), lines.end());
  }
  if (before.size() < entries.size()) {
    detail.lines.push_back(fmt::format("... and {} more entries", entries.size() - before.size()));
  }
  return detail;
}

}  // namespace

CommitDetail read_commit(ConfigSession* session, int64_t from, int64_t number,
                         const std::vector<ChangedEntry>& entries) {
  try {
    CommitDetail detail = difference(session, from, number, entries);
    CommitMaker maker = session->maker_of(number);
    detail.user = std::move(maker.user);
    detail.client = std::move(maker.client);
    detail.comment = std::move(maker.comment);
    return detail;
  } catch (const InputError& error) {
    return no_lines(error.what());
  }
}

CommitReader::CommitReader(uint16_t port) : port_(port), thread_([this] { run(); }) {}

CommitReader::~CommitReader() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    over_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void CommitReader::ask(int64_t from, int64_t number, std::vector<ChangedEntry> entries) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    asked_.push_back({from, number, std::move(entries)});
    if (asked_.size() > kAsked) asked_.pop_front();
  }
  changed_.notify_one();
}

std::map<int64_t, CommitDetail> CommitReader::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(read_, {});
}

CommitDetail CommitReader::read(const Question& question) const {
  try {
    ConfigSession session(port_);
    return read_commit(&session, question.from, question.number, question.entries);
  } catch (const InputError& error) {
    return no_lines(error.what());
  }
}

int64_t CommitReader::sessions() { return glance("")->sessions; }

ConfiguredPolicies CommitReader::configured(const std::string& policy) {
  return std::move(glance(policy)->configured);
}

// What comes too late nobody looks at any more.
std::shared_ptr<CommitReader::Glance> CommitReader::glance(const std::string& policy) {
  auto asked = std::make_shared<Glance>();
  asked->policy = policy;
  std::unique_lock<std::mutex> lock(mutex_);
  wanted_ = asked;
  changed_.notify_one();
  bool over = looked_.wait_for(lock, kPatience, [&] { return asked->over; });
  return over ? asked : std::make_shared<Glance>();
}

void CommitReader::look(Glance* glance) const {
  try {
    ConfigSession session(port_);
    if (glance->policy.empty()) {
      glance->sessions = session.other_sessions();
    } else {
      glance->configured = read_configured(&session, glance->policy);
    }
  } catch (const InputError&) {
    // Not known.
  }
}

void CommitReader::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return over_ || wanted_ || !asked_.empty(); });
    if (over_) return;
    if (wanted_) {
      std::shared_ptr<Glance> wanted = std::exchange(wanted_, nullptr);
      lock.unlock();
      look(wanted.get());
      lock.lock();
      wanted->over = true;
      looked_.notify_all();
      continue;
    }
    Question question = std::move(asked_.front());
    asked_.pop_front();
    lock.unlock();
    CommitDetail detail = read(question);
    lock.lock();
    read_.insert_or_assign(question.number, std::move(detail));
    while (read_.size() > kAsked) read_.erase(read_.begin());
  }
}

}  // namespace polctl
