// SPDX-License-Identifier: Apache-2.0
//
// What subscribers are told of a commit, and in which order.
#include <chrono>

#include "support.h"
#include "support/golden.h"

namespace test {
namespace {

class ChangesTest : public ::testing::Test {
 protected:
  AgentProcess agent_;
  Session session_{agent_.port()};
};

// Each part of the golden is one configuration, and the next that a subscriber is told of.
TEST_F(ChangesTest, WhatIsToldOfACommitMatchesItsGolden) {
  std::string all;
  for_each_part("changes/told.in", [&](const std::string& part) {
    const size_t title = part.find('\n') + 1;
    const size_t to = part.find("\nto\n");
    ASSERT_NE(to, std::string::npos) << part;
    ASSERT_EQ(why(session_.commit(part.substr(title, to - title), kReplace)), "ok");
    Subscriber subscriber(agent_.port(), "/policy");
    ASSERT_EQ(why(session_.commit(part.substr(to + 4), kReplace)), "ok");
    all += part.substr(0, title) + subscriber.next() + "\n";
    EXPECT_EQ(subscriber.commit_id(), maapi_commit_id(session_.fd()));
  });
  expect_golden("changes/told.ok", all);
}

// Not a benchmark: a cost that grows with the configuration would be beyond this by far.
TEST_F(ChangesTest, OneEntryInThirtyThousandIsChangedAndToldInMilliseconds) {
  constexpr int kEntries = 30'000;
  std::string text = "<lists><site-list><name>S</name>";
  for (int i = 0; i < kEntries; ++i)
    text.append("<site><id>").append(std::to_string(i)).append("</id></site>");
  ASSERT_EQ(why(session_.commit(policy(text + "</site-list></lists>"))), "ok");
  Subscriber subscriber(agent_.port(), "/policy");
  auto begin = std::chrono::steady_clock::now();
  constexpr int kCommits = 20;
  for (int i = 0; i < kCommits; ++i) {
    const std::string number = std::to_string(i * 1000);
    ASSERT_EQ(
        why(session_.commit_edits({{"/policy/lists/site-list{S}/site{" + number + "}", nullptr}})),
        "ok");
    EXPECT_EQ(
        subscriber.next(),
        "3 /policy/lists/site-list@1 [S]\n2 /policy/lists/site-list/site@2 [S " + number + "]\n");
  }
  auto spent = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(spent).count(), kCommits * 25);
}

TEST_F(ChangesTest, ABatchIsToldOnlyToThoseWhomItConcernsAndNoneForNothing) {
  Subscriber lists(agent_.port(), "/policy/lists");
  Subscriber policers(agent_.port(), "/policy/policer");
  std::string site = policy("<lists><site-list><name>S</name></site-list></lists>");
  ASSERT_EQ(why(session_.commit(site)), "ok");
  ASSERT_EQ(why(session_.commit(site)), "ok") << "the same again is no change";
  EXPECT_EQ(maapi_commit_id(session_.fd()), 1);
  EXPECT_EQ(lists.next(), "1 /policy/lists/site-list@1 [S]\n");
  EXPECT_EQ(lists.next(50), "none");
  EXPECT_EQ(policers.next(50), "none");
  Subscriber all(agent_.port(), "/policy");
  ASSERT_EQ(why(session_.commit("<policy-from-pellux xmlns=\"urn:zenodra:policy\"><app-id>"
                                "<name>a</name></app-id></policy-from-pellux>")),
            "ok");
  EXPECT_EQ(all.next(50), "none") << "whose path only begins alike";
}

TEST_F(ChangesTest, TheInitialBatchMakesThePresentConfigurationFromNothing) {
  {
    Subscriber early(agent_.port(), "/", YARROW_SUB_INITIAL);
    EXPECT_EQ(early.next(), "") << "empty, but it comes";
  }
  ASSERT_EQ(why(session_.commit(policy("<lists><color-list><name>C</name><color><color>gold</color>"
                                       "</color></color-list></lists>"))),
            "ok");
  Subscriber late(agent_.port(), "/", YARROW_SUB_INITIAL);
  EXPECT_EQ(late.next(),
            "1 /policy/lists/color-list@1 [C]\n"
            "1 /policy/lists/color-list/color@2 [C #11]\n");
}

TEST_F(ChangesTest, ASubscriberThatLagsBehindGetsEverythingInTheEnd) {
  Subscriber slow(agent_.port(), "/policy/lists");
  constexpr int kCommits = 450;
  // Wide enough that the kernel's buffers cannot hold what the subscriber does not read.
  std::string many;
  for (int i = 0; i < 400; ++i)
    many.append("<site><id>").append(std::to_string(i)).append("</id></site>");
  for (int i = 0; i < kCommits; ++i) {
    std::string list = "<lists><site-list><name>";
    list.append(std::to_string(i)).append("</name>").append(many).append("</site-list></lists>");
    ASSERT_EQ(why(session_.commit(policy(list))), "ok");
  }
  int batches = 0;
  size_t lists = 0;
  while (slow.commit_id() < kCommits) {
    std::string text = slow.next();
    ASSERT_NE(text, "none");
    ++batches;
    for (size_t at = 0; (at = text.find("site-list@1", at)) != std::string::npos; ++at) ++lists;
  }
  EXPECT_EQ(lists, size_t{kCommits});
  EXPECT_LT(batches, kCommits) << "the backlog is bounded";
}

}  // namespace
}  // namespace test
