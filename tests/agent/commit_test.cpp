// SPDX-License-Identifier: Apache-2.0
//
// Commits: what is refused and why, who may, and the way back.
#include <algorithm>
#include <thread>

#include "support.h"
#include "support/golden.h"

namespace test {
namespace {

class CommitTest : public ::testing::Test {
 protected:
  AgentProcess agent_;
  Session session_{agent_.port()};
  int fd_ = session_.fd();
};

// A text that cannot be loaded changes nothing; one that can, but breaks conditions, stays in the
// candidate. Either refusal names every fault.
TEST_F(CommitTest, RefusalsNameEveryFaultAsTheirGoldenHasItAndTellNobody) {
  Subscriber subscriber(agent_.port(), "/policy");
  std::string all;
  for_each_part("changes/refused.in", [&](const std::string& part) {
    const int loaded = session_.load(part);
    std::string reasons = why(loaded);
    const std::string candidate = session_.save("/policy", MAAPI_CANDIDATE);
    EXPECT_EQ(candidate.empty(), loaded != YARROW_OK);
    if (loaded == YARROW_OK) {
      reasons = why(maapi_candidate_validate(fd_));
      EXPECT_EQ(why(maapi_candidate_commit(fd_)), reasons);
    }
    EXPECT_EQ(session_.save("/policy"), "");
    EXPECT_EQ(session_.save("/policy", MAAPI_CANDIDATE), candidate);
    EXPECT_EQ(why(maapi_candidate_reset(fd_)), "ok");
    EXPECT_EQ(session_.save("/policy", MAAPI_CANDIDATE), "");
    all += reasons + "\n\n";
  });
  EXPECT_EQ(subscriber.next(50), "none");
  EXPECT_EQ(maapi_commit_id(fd_), 0);
  expect_golden("changes/refused.ok", all);
}

TEST_F(CommitTest, TextThatIsDeepOrLongIsRefused) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "<lists>";
  const std::string name(1 << 20, 'n');
  for (const std::string& text :
       {std::string(), policy(deep), policy("<app-id><name>" + name + "</name></app-id>")}) {
    EXPECT_EQ(session_.load(text), YARROW_ERR);
    EXPECT_EQ(yarrow_errno, YARROW_ERR_MALFORMED);
  }
}

TEST_F(CommitTest, AModifiedEntryIsCheckedAndUntouchedOnesAreNot) {
  ASSERT_EQ(why(session_.commit(
                policy("<policer><name>p</name><rate>1</rate><burst>1</burst></policer>"))),
            "ok");
  int trans = session_.begin(MAAPI_RUNNING);
  EXPECT_EQ(why(maapi_delete(fd_, trans, "/policy/policer{p}/rate")), "ok");
  EXPECT_EQ(why(maapi_validate_trans(fd_, trans)),
            "invalid configuration: /policy/policer{p}/rate: is missing");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)),
            "invalid configuration: /policy/policer{p}/rate: is missing");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "2", "/policy/policer{p}/rate")), "ok");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok") << "running is written as it is applied";
  EXPECT_EQ(maapi_commit_id(fd_), 2);
}

TEST_F(CommitTest, AFaultyFloodIsAnsweredWithABoundedList) {
  std::string many;
  for (int i = 0; i < 2000; ++i)
    many += "<policer><name>" + std::to_string(i) + "</name></policer>";
  ASSERT_EQ(why(session_.load(policy(many))), "ok");
  EXPECT_EQ(maapi_candidate_commit(fd_), YARROW_ERR);
  std::string reasons = yarrow_lasterr();
  EXPECT_NE(reasons.find("and 3900 more"), std::string::npos)
      << reasons.substr(reasons.size() - 40);
  EXPECT_EQ(std::count(reasons.begin(), reasons.end(), '\n'), 100);
}

TEST_F(CommitTest, OneSessionHoldsTheCandidateUntilItLetsGoOrDies) {
  auto other = std::make_unique<Session>(agent_.port());
  int trans = session_.begin();
  ASSERT_EQ(why(maapi_create(fd_, trans, "/policy/app-id{mine}")), "ok");
  ASSERT_EQ(why(maapi_lock(other->fd(), MAAPI_CANDIDATE)), "ok");
  EXPECT_EQ(why(maapi_lock(other->fd(), MAAPI_CANDIDATE)),
            "exists already: the lock is held already");
  for (const std::string& refusal :
       {why(maapi_lock(fd_, MAAPI_CANDIDATE)), why(maapi_apply_trans(fd_, trans, 1)),
        why(maapi_candidate_commit(fd_)), why(maapi_candidate_reset(fd_)),
        why(maapi_load_rollback(fd_, 1))}) {
    EXPECT_EQ(refusal, "locked by another session: another session holds the lock");
  }
  EXPECT_EQ(why(maapi_unlock(fd_, MAAPI_CANDIDATE)), "bad request: the lock is not held");
  EXPECT_EQ(why(other->commit(policy("<app-id><name>theirs</name></app-id>"))), "ok");
  EXPECT_EQ(why(maapi_unlock(other->fd(), MAAPI_CANDIDATE)), "ok");
  ASSERT_EQ(why(maapi_lock(other->fd(), MAAPI_RUNNING)), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(fd_)),
            "locked by another session: another session holds the lock");
  ASSERT_EQ(why(maapi_lock(other->fd(), MAAPI_CANDIDATE)), "ok");
  other.reset();  // dies with the locks
  int status = YARROW_ERR;
  for (int i = 0; i < 100 && status != YARROW_OK; ++i) {
    status = maapi_apply_trans(fd_, trans, 0);
    if (status != YARROW_OK) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(why(status), "ok") << "the same call again, once the lock is gone";
  ASSERT_EQ(why(maapi_candidate_commit(fd_)), "ok");
  int now = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(maapi_num_instances(fd_, now, "/policy/app-id"), 2) << "edits of both survive";
}

TEST_F(CommitTest, TransactionsThatTouchDifferentNodesMergeAndTheLaterWinsOnOne) {
  Session other(agent_.port());
  int mine = session_.begin();
  int theirs = other.begin();
  ASSERT_EQ(why(maapi_create(fd_, mine, "/policy/app-id{a}")), "ok");
  ASSERT_EQ(why(maapi_set_elem_text(fd_, mine, "1", "/policy/app-id{a}/id")), "ok");
  ASSERT_EQ(why(maapi_create(other.fd(), theirs, "/policy/app-id{a}")), "ok");
  ASSERT_EQ(why(maapi_set_elem_text(other.fd(), theirs, "2", "/policy/app-id{a}/id")), "ok");
  ASSERT_EQ(why(maapi_create(other.fd(), theirs, "/policy/app-id{b}")), "ok");
  ASSERT_EQ(why(maapi_apply_trans(fd_, mine, 0)), "ok");
  ASSERT_EQ(why(maapi_apply_trans(other.fd(), theirs, 0)), "ok");
  ASSERT_EQ(why(maapi_candidate_commit(fd_)), "ok");
  EXPECT_NE(
      session_.save("/policy").find("<app-id><name>a</name><id>2</id></app-id><app-id><name>b"),
      std::string::npos);
}

TEST_F(CommitTest, AWriteToRunningKeepsWhatTheCandidateHolds) {
  ASSERT_EQ(why(session_.load(policy("<app-id><name>pending</name></app-id>"))), "ok");
  int trans = session_.begin(MAAPI_RUNNING);
  ASSERT_EQ(why(maapi_create(fd_, trans, "/policy/app-id{direct}")), "ok");
  ASSERT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok");
  ASSERT_EQ(why(maapi_candidate_commit(fd_)), "ok");
  int now = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(maapi_num_instances(fd_, now, "/policy/app-id"), 2);
}

TEST(RollbackTest, AnyOfTheLastFiftyConfigurationsComesBackAlsoAfterARestart) {
  TempDirectory directory;
  std::vector<std::string> history = {""};
  auto goes_back = [&history](const Session& session) {
    for (unsigned back : {1u, 7u, 50u}) {
      ASSERT_EQ(why(maapi_load_rollback(session.fd(), back)), "ok");
      EXPECT_EQ(session.save("/policy", MAAPI_CANDIDATE), history[60 - back]);
    }
    EXPECT_EQ(why(maapi_load_rollback(session.fd(), 51)),
              "no such node: no configuration of 51 commits ago");
  };
  {
    AgentProcess agent(directory.path());
    Session session(agent.port());
    for (int i = 1; i <= 60; ++i) {
      std::string text =
          policy("<app-id><name>n</name><id>" + std::to_string(i) + "</id></app-id>");
      ASSERT_EQ(why(session.commit(text)), "ok");
      history.push_back(session.save("/policy"));
    }
    goes_back(session);
    EXPECT_EQ(agent.terminate(), 0);
  }
  AgentProcess agent(directory.path());
  Session session(agent.port());
  EXPECT_EQ(session.save("/policy"), history[60]);
  goes_back(session);
  Subscriber subscriber(agent.port(), "/policy");
  ASSERT_EQ(why(maapi_candidate_commit(session.fd())), "ok");
  EXPECT_EQ(subscriber.next(), "3 /policy/app-id@1 [n] id=10\n")
      << "a rollback is told like any edit";
  EXPECT_EQ(maapi_commit_id(session.fd()), 61);
}

}  // namespace
}  // namespace test
