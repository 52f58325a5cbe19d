// SPDX-License-Identifier: Apache-2.0
//
// Running survives the death of the agent at any moment, a full disk, and damage that an operator
// decides about.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "support.h"
#include "support/golden.h"
#include "support/paths.h"

namespace test {
namespace {

// One commit writes the same number into many entries, so that half a commit would show.
std::string generation(int number) {
  std::string text;
  for (int i = 0; i < 40; ++i) {
    text += "<app-id><name>" + std::to_string(i) + "</name><id>" + std::to_string(number) +
            "</id></app-id>";
  }
  return policy(text);
}

// The number that all entries hold; -1 if they differ, 0 if there are none.
int read_generation(const Session& session) {
  std::string text = session.save("/policy");
  int number = 0;
  int entries = 0;
  for (size_t at = 0; (at = text.find("<id>", at)) != std::string::npos; ++at) {
    int one = atoi(text.c_str() + at + 4);
    if (entries++ > 0 && one != number) return -1;
    number = one;
  }
  return entries == 0 || entries == 40 ? number : -1;
}

// YARROW_KILLS in the environment says how many, for a longer run.
TEST(CrashTest, KillsDuringCommitsLoseNothingAcknowledgedAndLeaveNothingHalfDone) {
  const char* given = getenv("YARROW_KILLS");
  const int kills = given != nullptr ? atoi(given) : 25;
  TempDirectory directory;
  std::mt19937 random(7);
  int acknowledged = 0;
  std::atomic<int> number = 0;
  for (int round = 0; round < kills; ++round) {
    AgentProcess agent(directory.path());
    ASSERT_NE(agent.port(), 0) << agent.log();
    Session session(agent.port());
    int found = read_generation(session);
    ASSERT_GE(found, acknowledged) << "an acknowledged commit is lost, or half of one is there";
    ASSERT_LE(found, number);
    acknowledged = found;
    std::atomic<int> last = acknowledged;
    std::thread committer([&] {
      for (int next = number + 1;; ++next) {
        number = next;
        if (session.commit(generation(next)) != YARROW_OK) return;
        last = next;
      }
    });
    // However slow the machine is, half of the kills find commits on their way.
    for (int i = 0; round % 2 == 0 && i < 10'000 && last == found; ++i) usleep(1'000);
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 40'000));
    agent.kill_hard();
    committer.join();
    acknowledged = last;
  }
  EXPECT_GE(acknowledged, kills / 2) << "commits went on between the kills";
  RecordProperty("commits", acknowledged);
}

TEST(CrashTest, AFullDiskRefusesCommitsAndNothingElseAndGoesOnOnceThereIsRoom) {
  TempDirectory directory;
  std::string file = directory.path() + "/running";
  {
    AgentProcess agent(directory.path());
    Session session(agent.port());
    ASSERT_EQ(why(session.commit(generation(1))), "ok");
    std::string before = file_text(file);
    auto limit_files = [&](rlim_t size) {
      rlimit limit = {size, RLIM_INFINITY};
      ASSERT_EQ(prlimit(agent.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    };
    limit_files(before.size() + 100);
    EXPECT_EQ(why(session.commit(generation(2))),
              "system call failed: " + file + ": File too large");
    EXPECT_EQ(file_text(file), before);
    EXPECT_EQ(read_generation(session), 1);
    EXPECT_EQ(maapi_commit_id(session.fd()), 1);
    EXPECT_EQ(why(maapi_candidate_reset(session.fd())), "ok");
    EXPECT_NE(agent.log().find("a commit cannot be written: the file is as it was before commit=2"),
              std::string::npos)
        << agent.log();
    limit_files(RLIM_INFINITY);
    EXPECT_EQ(why(session.commit(generation(3))), "ok");
    agent.kill_hard();
  }
  AgentProcess agent(directory.path());
  Session session(agent.port());
  EXPECT_EQ(read_generation(session), 3);
  EXPECT_EQ(maapi_commit_id(session.fd()), 2);
}

// yarrowd to its end; its words, and its exit status at their end.
std::string yarrowd(const std::string& arguments) {
  const std::string files = std::string(kGoldenDir) + "/usage";
  FILE* out =
      popen(("cd " + files + " && " + kYarrowdPath + " " + arguments + " 2>&1").c_str(), "r");
  std::string text;
  char line[4096];
  while (fgets(line, sizeof line, out) != nullptr) text += line;
  return text + std::to_string(WEXITSTATUS(pclose(out)));
}

TEST(CrashTest, ACommandLineThatMeansNothingIsRefusedWithWhatItTakes) {
  std::istringstream lines(read_golden("usage/yarrowd.in"));
  std::string all;
  for (std::string line; std::getline(lines, line);) all += line + "\n" + yarrowd(line) + "\n";
  expect_golden("usage/yarrowd.ok", all);
}

TEST(CrashTest, DamageStopsTheStartAndTheOperatorRecoversOrRestores) {
  TempDirectory directory;
  const std::string state = directory.path() + "/state";
  const std::string file = state + "/running";
  const std::string backup = directory.path() + "/backup";
  {
    AgentProcess agent(state);
    Session session(agent.port());
    for (int i = 1; i <= 2; ++i) ASSERT_EQ(why(session.commit(generation(i))), "ok");
    EXPECT_EQ(yarrowd("--dir " + state + " --backup " + backup).substr(0, backup.size() + 10),
              "yarrowd: " + backup + ":");
    EXPECT_EQ(file_text(backup), file_text(file));
    ASSERT_EQ(why(session.commit(generation(3))), "ok");
    EXPECT_NE(yarrowd("--check " + state).find("; the last good commit is 3; an agent uses it\n0"),
              std::string::npos);
    EXPECT_EQ(yarrowd("--dir " + state + " --restore " + backup),
              "yarrowd: " + state + ": another agent uses it\n1");
    EXPECT_EQ(yarrowd("--dir " + state + " --backup " + backup),
              "yarrowd: " + backup + ": File exists\n1");
    kill(agent.pid(), SIGHUP);
    EXPECT_EQ(maapi_commit_id(session.fd()), 3);
    EXPECT_EQ(agent.terminate(), 0);
    EXPECT_NE(agent.log().find("SIGHUP: nothing to reread"), std::string::npos);
  }
  std::string damaged = file_text(file);
  const size_t second_commit = file_text(backup).size() - 10;
  damaged[second_commit] ^= 1;
  std::ofstream(file, std::ios::binary) << damaged;
  for (const std::string& arguments : {"--check " + state, "--port 0 --dir " + state}) {
    std::string words = yarrowd(arguments);
    EXPECT_NE(words.find(file + ": damaged at byte "), std::string::npos) << words;
    EXPECT_NE(words.find("the last good commit is 1;"), std::string::npos) << words;
    EXPECT_TRUE(words.ends_with("\n1")) << words;
    EXPECT_EQ(file_text(file), damaged);
  }
  {
    AgentProcess agent("", {"--recover", state});
    Session session(agent.port());
    EXPECT_EQ(read_generation(session), 1);
    EXPECT_EQ(file_text(file + ".damaged.1"), damaged);
    EXPECT_EQ(why(session.commit(generation(7))), "ok");
  }
  EXPECT_EQ(yarrowd("--dir " + state + " --restore " + backup),
            "yarrowd: " + file + ": restored, commit 2; what was there is kept as " + file +
                ".replaced.1\n0");
  AgentProcess agent(state);
  Session session(agent.port());
  EXPECT_EQ(read_generation(session), 2);
  EXPECT_EQ(maapi_commit_id(session.fd()), 2);
}

}  // namespace
}  // namespace test
