// SPDX-License-Identifier: Apache-2.0
//
// Running survives the death of the agent at any moment.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "agent/yarrow_agent.h"
#include "support.h"

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

TEST(CrashTest, FiftyKillsDuringCommitsLoseNothingAcknowledgedAndLeaveNothingHalfDone) {
  TempDirectory directory;
  std::mt19937 random(7);
  int acknowledged = 0;
  int number = 0;
  for (int round = 0; round < 50; ++round) {
    AgentProcess agent(directory.path());
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
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 20'000));
    agent.kill_hard();
    committer.join();
    acknowledged = last;
  }
  EXPECT_GT(acknowledged, 50) << "commits went on between the kills";
}

TEST(CrashTest, AFileCutAtAnyByteGivesTheLastCommitThatIsWholeInIt) {
  TempDirectory directory;
  {
    AgentProcess agent(directory.path());
    Session session(agent.port());
    for (int i = 1; i <= 3; ++i) ASSERT_EQ(why(session.commit(generation(i))), "ok");
    agent.kill_hard();
  }
  std::string file = directory.path() + "/running";
  std::ifstream in(file, std::ios::binary);
  std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The generation found, after which the next commit must be found too.
  auto restart_with = [&](const std::string& text) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    int found[2];
    for (int& one : found) {
      std::string error;
      agent::Options options;
      options.directory = directory.path();
      std::shared_ptr<agent::Handle> handle = agent::start(options, &error);
      if (!handle) return -2;
      EXPECT_FALSE(agent::start(options, &error));
      EXPECT_NE(error.find("another agent uses it"), std::string::npos);
      agent::run_in_thread(*handle);
      Session session(agent::port(*handle));
      one = read_generation(session);
      EXPECT_EQ(why(session.commit(generation(9))), "ok");
    }
    EXPECT_EQ(found[1], 9);
    return found[0];
  };
  int seen[4] = {};
  std::mt19937 random(3);
  for (int i = 0; i < 40; ++i) {
    int found = restart_with(whole.substr(0, whole.size() - 1 - random() % (whole.size() - 60)));
    ASSERT_GE(found, 0);
    ++seen[found];
  }
  EXPECT_EQ(seen[3], 0) << "without its last byte the last commit is not whole";
  EXPECT_GT(seen[1] * seen[2], 0);
  std::string flipped = whole;
  flipped[whole.size() - 100] ^= 0x20;
  EXPECT_EQ(restart_with(flipped), 2) << "a damaged record counts as not written";
  EXPECT_EQ(restart_with("something else"), -2) << "a file of another kind is not overwritten";
}

TEST(CrashTest, TheFileIsWrittenAnewBeforeItGrowsWithoutBound) {
  TempDirectory directory;
  std::string last;
  {
    AgentProcess agent(directory.path());
    Session session(agent.port());
    std::string wide;
    for (int i = 0; i < 2000; ++i) wide += "<site><id>" + std::to_string(i) + "</id></site>";
    for (int i = 0; i < 150; ++i) {
      // Each commit drops one long list and brings another.
      ASSERT_EQ(why(session.commit(policy("<lists><site-list><name>" + std::to_string(i) +
                                          "</name>" + wide + "</site-list></lists>"),
                                   kReplace)),
                "ok");
    }
    last = session.save("/policy");
    EXPECT_LT(std::filesystem::file_size(directory.path() + "/running"), 8u << 20);
    agent.kill_hard();
  }
  AgentProcess agent(directory.path());
  Session session(agent.port());
  EXPECT_EQ(session.save("/policy"), last);
  EXPECT_EQ(maapi_commit_id(session.fd()), 150);
  EXPECT_EQ(why(maapi_load_rollback(session.fd(), 50)), "ok");
}

}  // namespace
}  // namespace test
