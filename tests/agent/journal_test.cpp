// SPDX-License-Identifier: Apache-2.0
//
// The file of the running configuration against models of what may befall it, and the directory it
// lies in against those who share the machine.
#include "agent/journal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "agent/keypath.h"
#include "agent/xml.h"
#include "support.h"

namespace test {
namespace {

using agent::JournalContent;
using agent::NodeRef;
using agent::OnDamage;
using agent::Result;
using End = agent::JournalContent::End;

class JournalTest : public ::testing::Test {
 protected:
  JournalTest() {
    std::string error;
    schema_ = agent::schema_load(&error);
    EXPECT_TRUE(schema_) << error;
  }

  // A configuration that holds `text` in leaves of so many entries.
  NodeRef holding(const std::string& text, int entries = 1) const {
    NodeRef root = empty_tree(*schema_);
    for (int i = 0; i < entries; ++i) {
      agent::Path path;
      std::string leaf = "/policy/app-id{" + std::to_string(i) + "}/description";
      EXPECT_TRUE(agent::path_parse(*schema_, leaf, &path).ok());
      root = with_node(root, path, agent::make_leaf(*path.back().schema, {text}));
    }
    return root;
  }

  // One of about 4,000 bytes in the file.
  NodeRef wide(int number) const {
    return holding(std::to_string(number) + std::string(127 - 10, 'x'), 22);
  }

  Result open(agent::Journal& journal, OnDamage on_damage = OnDamage::kRefuse) {
    return journal_open(journal, *schema_, name_, on_damage, &versions_);
  }

  // Makes `next` the running configuration.
  Result commit(agent::Journal& journal, const NodeRef& next) {
    std::vector<agent::Change> changes;
    changes_between(versions_.back().root, next, &changes);
    uint64_t number = versions_.back().commit + 1;
    Result result = journal_append(journal, number, changes);
    if (!result.ok()) return result;
    versions_.push_back({number, next});
    if (versions_.size() > agent::kMaxRollback + 1) versions_.pop_front();
    return result;
  }

  std::string saved() const {
    std::string text;
    for (const agent::Version& version : versions_) {
      text += std::to_string(version.commit) + xml_save(version.root, {}) + "\n";
    }
    return text;
  }

  // The file after five commits, and where each of its records ends.
  std::string five_commits(std::vector<size_t>* ends) {
    agent::Journal journal;
    EXPECT_EQ(open(journal).reason, "");
    ends->push_back(journal.size);
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(commit(journal, holding(std::to_string(i))).reason, "");
      ends->push_back(journal.size);
    }
    return file_text(file_);
  }

  // How a reading ends, and with which commit.
  static std::string outcome(const JournalContent& content) {
    static const char* const kWords[] = {"whole", "torn", "damaged", "foreign"};
    std::string text = kWords[static_cast<int>(content.end)];
    if (content.versions.empty()) return text;
    return text + " after " + std::to_string(content.versions.back().commit);
  }

  TempDirectory directory_;
  std::string name_ = directory_.path() + "/state";
  std::string file_ = name_ + "/running";
  std::unique_ptr<agent::Schema> schema_;
  std::deque<agent::Version> versions_;
};

TEST_F(JournalTest, ACutAndADamagedByteAnywhereLoseWhatTheModelSays) {
  std::vector<size_t> ends;
  const std::string whole = five_commits(&ends);
  constexpr size_t kFirstLine = 17;
  for (size_t at = 0; at < whole.size(); ++at) {
    auto record =
        static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), at) - ends.begin());
    std::string before = record == 0 ? "" : " after " + std::to_string(record - 1);
    std::string expected = record == 0 ? "damaged" : "torn" + before;
    if (record > 0 && at == ends[record - 1]) expected = "whole" + before;
    if (at < kFirstLine) expected = "foreign";
    EXPECT_EQ(outcome(journal_read(*schema_, whole.substr(0, at))), expected) << "cut at " << at;

    std::string flipped = whole;
    flipped[at] ^= 0x01;
    expected = (record == 5 ? "torn" : "damaged") + before;
    // The last record's length: too short, it says that bytes follow, as no torn write would.
    if (record == 5 && at == ends[4] + 3 && flipped[at] < whole[at]) expected = "damaged" + before;
    if (at < kFirstLine) expected = "foreign";
    JournalContent content = journal_read(*schema_, flipped);
    EXPECT_EQ(outcome(content), expected) << "flipped at " << at;
    if (record > 0) {
      EXPECT_EQ(content.good_size, ends[record - 1]);
    }
  }
}

TEST_F(JournalTest, RecordsThatAreWholeButNotInTheirPlaceAreDamage) {
  std::vector<size_t> ends;
  const std::string whole = five_commits(&ends);
  auto part = [&](size_t from, size_t to) {
    return whole.substr(ends[from], ends[to] - ends[from]);
  };
  const std::string base = whole.substr(0, ends[0]);
  const std::string zeros(4096, '\0');
  const struct {
    const char* name;
    std::string bytes;
    const char* outcome;
  } kCases[] = {
      {"a record is missing", base + part(0, 2) + part(3, 5), "damaged after 2"},
      {"a record stands twice", base + part(0, 5) + part(4, 5), "damaged after 5"},
      {"records changed places", base + part(1, 2) + part(0, 1), "damaged after 0"},
      {"a second base", base + part(0, 1) + base.substr(17), "damaged after 1"},
      {"no base", base.substr(0, 17) + part(0, 5), "damaged"},
      {"room that was never filled", whole + zeros, "torn after 5"},
      {"a record's head, then such room", base + part(0, 1).substr(0, 8) + zeros, "torn after 0"},
      {"two damaged records at the end",
       base + part(0, 4).replace(part(0, 3).size() + 20, 1, "!") + part(4, 5).replace(20, 1, "!"),
       "damaged after 3"},
      {"another format", "yarrow running 3\n" + whole.substr(17), "foreign"},
      {"a file of zeros", zeros, "foreign"},
      {"nothing", "", "foreign"},
  };
  for (const auto& [name, bytes, expected] : kCases) {
    EXPECT_EQ(outcome(journal_read(*schema_, bytes)), expected) << name;
  }
}

// A file of the format without notes is read as what it holds, and goes on as one of this format.
TEST_F(JournalTest, AFileOfTheOlderFormatIsReadAndWrittenAnew) {
  std::vector<size_t> ends;
  const std::string whole = five_commits(&ends);
  const std::string expected = saved();
  constexpr size_t kFirstLine = 17, kHead = 8, kKindAndCommit = 9, kEmptyNote = 29;
  std::string old = "yarrow running 1\n";
  for (size_t i = 0, at = kFirstLine; i < ends.size(); at = ends[i++]) {
    yarrow::Writer record;
    const std::string body = whole.substr(at, ends[i] - at);
    record.raw(body.data(), kHead + kKindAndCommit);
    record.raw(body.data() + kHead + kKindAndCommit + kEmptyNote,
               body.size() - kHead - kKindAndCommit - kEmptyNote);
    agent::journal_seal(record);
    old += record.bytes();
  }
  std::ofstream(file_, std::ios::binary) << old;
  for (int restart = 0; restart < 2; ++restart) {
    agent::Journal journal;
    ASSERT_EQ(open(journal).reason, "");
    EXPECT_EQ(saved(), expected);
    EXPECT_EQ(file_text(file_).substr(0, kFirstLine), "yarrow running 2\n");
  }
  EXPECT_EQ(outcome(journal_read(*schema_, old.substr(0, old.size() - 1))), "torn after 4");
}

// An agent that dies before the time is over takes back at its next start what was not confirmed.
TEST_F(JournalTest, WhatWasNotConfirmedWhileTheAgentWasDeadIsTakenBackAtTheStart) {
  for (int64_t late : {-3'000, 1}) {
    agent::CommitNote note;
    note.time = time(nullptr) - 3'600;
    note.comment = "a try";
    note.confirm = agent::Confirm::kUntil;
    note.deadline = time(nullptr) - late;
    std::filesystem::remove_all(name_);
    {
      agent::Journal journal;
      ASSERT_EQ(open(journal).reason, "");
      for (int i = 0; i < 2; ++i) {
        std::vector<agent::Change> changes;
        changes_between(versions_.back().root, wide(i), &changes);
        ASSERT_EQ(
            journal_append(journal, i + 1u, changes, i == 1 ? note : agent::CommitNote{}).reason,
            "");
        versions_.push_back({i + 1u, wide(i)});
      }
    }
    AgentProcess process(name_);
    Session session(process.port());
    EXPECT_EQ(session.save("/"), xml_save(wide(late > 0 ? 0 : 1), {}));
    process.kill_hard();
    AgentProcess again(name_);
    EXPECT_EQ(Session(again.port()).save("/"), xml_save(wide(late > 0 ? 0 : 1), {}));
  }
}

// The whole life of a file, through restarts: as long as what rollback needs, and no longer.
TEST_F(JournalTest, TheFileStaysInProportionToWhatRollbackNeedsAcrossRestarts) {
  constexpr uint64_t kSlack = 16u << 10;
  constexpr uint64_t kCommit = 4'400;
  uint64_t rewritten = 0;
  for (int restart = 0; restart < 4; ++restart) {
    agent::Journal journal;
    std::string expected = versions_.empty() ? "" : saved();
    ASSERT_EQ(open(journal).reason, "");
    if (restart > 0) {
      ASSERT_EQ(saved(), expected);
    }
    for (int i = 0; i < 55; ++i) {
      journal.slack = kSlack;
      journal.quiet_until = std::min(journal.quiet_until, kSlack);
      ASSERT_EQ(commit(journal, wide(restart * 100 + i)).reason, "");
      if (!journal_wants_rewrite(journal)) continue;
      ASSERT_EQ(journal_rewrite(journal, *schema_, versions_).reason, "");
      ++rewritten;
    }
    ASSERT_LT(journal.size, 2 * (agent::kMaxRollback + 1) * kCommit + kSlack + kCommit);
  }
  EXPECT_GT(rewritten, 0u);
  EXPECT_EQ(versions_.back().commit, 4u * 55u);
}

TEST_F(JournalTest, AtItsLimitTheFileGivesUpRollbackBeforeItRefusesCommits) {
  agent::Journal journal;
  ASSERT_EQ(open(journal).reason, "");
  journal.limit = 40'000;
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(commit(journal, wide(i)).reason, "");
    journal.quiet_until = 0;
    if (journal_wants_rewrite(journal)) {
      ASSERT_EQ(journal_rewrite(journal, *schema_, versions_).reason, "");
    }
  }
  std::string last = xml_save(versions_.back().root, {});
  journal.limit = journal.size + 100;
  EXPECT_EQ(commit(journal, wide(30)).error, YARROW_ERR_TOOBIG);
  agent::Journal other;
  EXPECT_EQ(open(other).error, YARROW_ERR_LOCKED);
  close(std::exchange(journal.dir.lock, -1));
  ASSERT_EQ(open(other).reason, "");
  EXPECT_EQ(versions_.back().commit, 30u);
  EXPECT_EQ(xml_save(versions_.back().root, {}), last);
  EXPECT_LT(versions_.size(), 11u);
}

// Nearer than a kill of the agent: the process does nothing but commit and write the file anew.
// YARROW_KILLS in the environment says how many, for a longer run.
TEST_F(JournalTest, AKillAtAnyMomentLosesNothingThatWasAcknowledged) {
  const char* given = getenv("YARROW_KILLS");
  const int kills = given != nullptr ? atoi(given) : 30;
  auto* shared = static_cast<std::atomic<uint64_t>*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::atomic<uint64_t>& acknowledged = shared[0];
  std::atomic<uint64_t>& rewritten = shared[1];
  std::mt19937 random(5);
  for (int round = 0; round < kills; ++round) {
    pid_t child = fork();
    if (child == 0) {
      agent::Journal journal;
      if (!open(journal).ok()) _exit(1);
      journal.limit = 60'000;
      while (true) {
        int next = static_cast<int>(versions_.back().commit) + 1;
        if (!commit(journal, wide(next)).ok()) _exit(2);
        acknowledged = versions_.back().commit;
        journal.quiet_until = 0;
        if (!journal_wants_rewrite(journal)) continue;
        if (!journal_rewrite(journal, *schema_, versions_).ok()) _exit(3);
        ++rewritten;
      }
    }
    // Half of the kills find it at work however slow the machine is, the others maybe opening.
    const uint64_t before = acknowledged;
    for (int i = 0; round % 2 == 0 && i < 10'000 && acknowledged < before + 2; ++i) usleep(1'000);
    usleep(static_cast<useconds_t>(random() % 30'000));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself: " << WEXITSTATUS(status);
    agent::Journal journal;
    ASSERT_EQ(open(journal).reason, "");
    const agent::Version& last = versions_.back();
    ASSERT_GE(last.commit, acknowledged);
    ASSERT_LE(last.commit, acknowledged + 1);
    if (last.commit > 0) {
      ASSERT_EQ(xml_save(last.root, {}), xml_save(wide(static_cast<int>(last.commit)), {}));
    }
    acknowledged = last.commit;
  }
  EXPECT_GE(acknowledged, static_cast<uint64_t>(kills / 2)) << "commits went on between the kills";
  EXPECT_GT(rewritten, 0u);
  RecordProperty("commits", std::to_string(acknowledged));
  RecordProperty("rewritten", std::to_string(rewritten));
  munmap(shared, 4096);
}

TEST_F(JournalTest, WhatCannotBeWrittenIsRefusedAndTriedAgain) {
  agent::Journal journal;
  ASSERT_EQ(open(journal).reason, "");
  ASSERT_EQ(commit(journal, wide(1)).reason, "");
  const std::string before = file_text(file_);
  int file = std::exchange(journal.file, ::open(file_.c_str(), O_RDONLY));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(commit(journal, wide(2)).error, YARROW_ERR_OS);
    EXPECT_TRUE(journal.broken) << "neither written nor taken back";
  }
  close(std::exchange(journal.file, file));
  EXPECT_EQ(file_text(file_), before);
  EXPECT_EQ(commit(journal, wide(2)).reason, "");
  journal.quiet_until = 0;
  journal.limit = 2 * journal.size - 2;
  EXPECT_TRUE(journal_wants_rewrite(journal));
  std::filesystem::create_directory(file_ + ".new");
  EXPECT_EQ(journal_rewrite(journal, *schema_, versions_).error, YARROW_ERR_OS);
  EXPECT_FALSE(journal_wants_rewrite(journal)) << "not again at once";
  EXPECT_EQ(commit(journal, wide(3)).reason, "");
  const std::string expected = saved();
  close(std::exchange(journal.dir.lock, -1));
  agent::Journal other;
  ASSERT_EQ(open(other).reason, "");
  EXPECT_EQ(saved(), expected);
}

// What others may have put in the directory's or a file's place.
TEST_F(JournalTest, ADirectoryOrFileThatOthersCouldHaveMadeIsRefused) {
  namespace fs = std::filesystem;
  const std::string victim = directory_.path() + "/victim";
  const std::string lock = name_ + "/lock";
  const struct {
    std::function<void()> attack;
    const char* reason;
  } kCases[] = {
      {[&] { chmod(name_.c_str(), 0770); }, "state: others may write to it (mode 0770)"},
      {[&] { fs::remove_all(name_), fs::create_directory_symlink(directory_.path(), name_); },
       "state: is a link or not a directory"},
      {[&] {
         fs::remove_all(name_), fs::create_directory_symlink(directory_.path(), name_);
         name_ += "//";
       },
       "state: is a link or not a directory"},
      {[&] { fs::remove_all(name_), std::ofstream(name_) << "x"; },
       "state: is a link or not a directory"},
      {[&] { fs::remove(file_), fs::create_symlink(victim, file_); }, "running: is a link"},
      {[&] { fs::remove(lock), fs::create_symlink(victim, lock); }, "lock: is a link"},
      {[&] { fs::remove(file_), mkfifo(file_.c_str(), 0600); }, "running: is not a plain file"},
      {[&] { chmod(file_.c_str(), 0622); }, "running: others may write to it (mode 0622)"},
      {[&] { fs::resize_file(file_, agent::kMaxJournal + 1); }, "are more than"},
      {[&] { EXPECT_EQ(chown(file_.c_str(), 65534, 65534), 0); }, "running: belongs to user 65534"},
      {[&] { name_.clear(); }, "an empty directory name"},
  };
  for (const auto& [attack, reason] : kCases) {
    if (strstr(reason, "65534") != nullptr && geteuid() != 0) continue;
    name_ = directory_.path() + "/state";
    fs::remove_all(name_);
    std::ofstream(victim) << "precious";
    {
      agent::Journal journal;
      ASSERT_EQ(open(journal).reason, "");
    }
    attack();
    agent::Journal journal;
    Result result = open(journal);
    EXPECT_FALSE(result.ok()) << reason;
    EXPECT_NE(result.reason.find(reason), std::string::npos) << result.reason;
    EXPECT_EQ(file_text(victim), "precious");
  }
  name_ = directory_.path() + "/state";
  fs::remove_all(name_);
  fs::create_directory(name_);
  chmod(name_.c_str(), 0700);
  fs::create_symlink(victim, file_ + ".new");
  agent::Journal journal;
  EXPECT_EQ(open(journal).reason, "");
  EXPECT_EQ(file_text(victim), "precious") << "a leftover is replaced, not written through";
}

}  // namespace
}  // namespace test
