// SPDX-License-Identifier: Apache-2.0
//
// Commits: what is refused and why, who may, and the way back.
#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "agent/session.h"
#include "agent/yarrow_agent.h"
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

// A text that cannot be loaded changes nothing; one that can, but breaks conditions, stays until the
// commit that is refused. Either refusal names every fault.
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
  many.clear();
  for (int i = 0; i < 2000; ++i) many += "<app-id><name>n</name><id>x</id></app-id>";
  EXPECT_EQ(session_.load(policy(many)), YARROW_ERR);
  reasons = yarrow_lasterr();
  EXPECT_TRUE(reasons.ends_with("\nand 3899 more")) << reasons.substr(reasons.size() - 40);
}

// Sessions by name, in one agent: "NAME COMMAND ARGUMENTS" a line.
class Play {
 public:
  // What the agent said.
  std::string line(const std::string& text) {
    std::istringstream words(text);
    std::string name, command, rest;
    words >> name >> command >> std::ws;
    std::getline(words, rest, '\0');
    std::unique_ptr<Session>& session = sessions_[name];
    if (!session) session = std::make_unique<Session>(agent_.port());
    if (command == "lost") {
      session.reset();
      Session(agent_.port()).begin();  // by now the agent has seen it
      return "ok";
    }
    if (command == "other") std::swap(transactions_[name].first, transactions_[name].second);
    return act(*session, transactions_[name].first, command, rest);
  }

 private:
  static std::string inner(const std::string& saved) {
    size_t at = saved.find('>', saved.find("<policy"));
    return at == std::string::npos ? "nothing"
                                   : saved.substr(at + 1, saved.rfind("</policy>") - at - 1);
  }

  static std::string act(const Session& session, int& trans, const std::string& command,
                         const std::string& rest) {
    const int fd = session.fd();
    const std::string xml =
        "<policy xmlns=\"urn:zenodra:policy\" "
        "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
        rest + "</policy>";
    const std::string first = rest.substr(0, rest.find(' '));
    const std::string more = rest.substr(std::min(rest.size(), first.size() + 1));
    const auto flags = static_cast<unsigned>(strtoul(rest.c_str(), nullptr, 16));
    if (command == "begin") {
      int datastore = MAAPI_CANDIDATE, mode = MAAPI_READ_WRITE;
      std::istringstream(rest) >> datastore >> mode;
      trans = maapi_start_trans_flags2(fd, datastore, mode, 0, 0, nullptr, nullptr);
      return why(trans);
    }
    if (command == "exists") return std::to_string(maapi_exists(fd, trans, "%s", rest.c_str()));
    if (command == "count") {
      return std::to_string(maapi_num_instances(fd, trans, "%s", rest.c_str()));
    }
    if (command == "get") {
      char text[128] = "";
      const int got = maapi_get_elem_text(fd, trans, text, sizeof text, "%s", rest.c_str());
      return got >= 0 ? text : why(got);
    }
    if (command == "start") return why(maapi_start_user_session3(fd, "u", "c", nullptr, nullptr));
    if (command == "end") return why(maapi_end_user_session(fd));
    if (command == "finish") return why(maapi_finish_trans(fd, trans));
    if (command == "check") return why(maapi_validate_trans(fd, trans));
    if (command == "land") return why(maapi_apply_trans(fd, trans, 0));
    if (command == "text") return why(session.load(more, flags));
    if (command == "below") {
      return why(maapi_load_config_cmds(fd, trans, 0x41, more.c_str(), "%s", first.c_str()));
    }
    if (command == "file") {
      TempDirectory directory;
      const std::string file = directory.path() + "/one.xml";
      if (!more.empty()) std::ofstream(file) << more;
      const int status = maapi_load_config(fd, trans, flags, file.c_str());
      return more.empty() ? why(status).substr(0, 18) : why(status);
    }
    if (command == "create") return why(maapi_create(fd, trans, "%s", rest.c_str()));
    if (command == "delete") return why(maapi_delete(fd, trans, "%s", rest.c_str()));
    if (command == "set") {
      const std::string leaf = rest.substr(0, rest.find(' ', rest.rfind('/')));
      return why(
          maapi_set_elem_text(fd, trans, rest.substr(leaf.size() + 1).c_str(), "%s", leaf.c_str()));
    }
    if (command == "apply") return why(maapi_apply_trans(fd, trans, 1));
    if (command == "commit") return why(maapi_candidate_commit(fd));
    if (command == "validate") return why(maapi_candidate_validate(fd));
    if (command == "discard") return why(maapi_candidate_reset(fd));
    if (command == "rollback") return why(maapi_load_rollback(fd, 1));
    if (command == "lock") return why(maapi_lock(fd, atoi(rest.c_str())));
    if (command == "unlock") return why(maapi_unlock(fd, atoi(rest.c_str())));
    if (command == "load") return why(session.load(xml));
    if (command == "replace") return why(session.load(xml, kReplace));
    if (command == "view") return inner(session.save("/policy", MAAPI_CANDIDATE));
    if (command == "show") return inner(session.save("/policy"));
    if (command == "number") return std::to_string(maapi_commit_id(fd));
    if (command == "again") return why(session.commit(session.save("/"), flags));
    return "ok";
  }

  AgentProcess agent_;
  std::map<std::string, std::unique_ptr<Session>> sessions_;
  std::map<std::string, std::pair<int, int>> transactions_;  // the one in use, and another
};

TEST(SessionsTest, WhatSessionsSeeAndMayCommitMatchesItsGolden) {
  std::string all;
  for_each_part("changes/sessions.in", [&](const std::string& part) {
    Play play;
    std::istringstream lines(part);
    std::string next;
    std::getline(lines, next);
    all += next + "\n";
    std::getline(lines, next);
    while (!next.empty()) {
      std::string one;
      one.swap(next);
      // A text goes on in lines that are indented.
      while (std::getline(lines, next) && next.starts_with(' ')) one += "\n" + next;
      if (!lines) next.clear();
      const std::string answer = play.line(one);
      all += one.substr(0, 90) + (answer == "ok" ? "" : "\n    " + answer) + "\n";
    }
    all += "\n";
  });
  expect_golden("changes/sessions.ok", all);
}

// Without a wire: a quarter of a gigabyte would take its time on one.
TEST(SessionsTest, UnfinishedLoadsAreBoundedInSumAndThoseThatPauseGiveWay) {
  service::log_to(service::LogTarget::kOff, "");
  agent::Agent agent;
  std::string error;
  agent.schema = agent::schema_load(&error);
  ASSERT_TRUE(agent::datastores_open(agent.stores, *agent.schema, {}, {}).ok());
  agent::Session sessions[3];
  auto ask = [&](agent::Session& session, yarrow::Request request, const std::string& arguments) {
    yarrow::Reader in(arguments);
    yarrow::Writer out;
    return agent::session_answer(agent, session, yarrow::SocketKind::kMaapi, request, in, out)
        .reason;
  };
  yarrow::Writer hello, trans, load, data;
  for (const char* text : {"u", "c", "i", "s"}) hello.text(text);
  for (uint32_t number : {uint32_t{MAAPI_CANDIDATE}, uint32_t{MAAPI_READ_WRITE}}) trans.u32(number);
  for (uint32_t number : {1u, uint32_t{YARROW_CONFIG_XML}, 0u}) load.u32(number);
  data.text(std::string(8u << 20, ' '));
  const std::string full = "other sessions load too much text at this moment";
  for (agent::Session& session : sessions) {
    session.id = static_cast<uint64_t>(&session - sessions) + 1;
    ASSERT_EQ(ask(session, yarrow::Request::kStartSession, hello.bytes()), "");
    ASSERT_EQ(ask(session, yarrow::Request::kStartTrans, trans.bytes()), "");
    ASSERT_EQ(ask(session, yarrow::Request::kLoadBegin, load.bytes()), "");
    for (int i = 0; i < 16; ++i) {
      EXPECT_EQ(ask(session, yarrow::Request::kLoadData, data.bytes()),
                session.id < 3 ? ""
                : i == 0       ? full
                               : "nothing is being loaded");
    }
  }
  agent.loads[1].touched -= 11'000;
  EXPECT_EQ(ask(sessions[1], yarrow::Request::kLoadData, data.bytes()), "too much text");
  ASSERT_EQ(ask(sessions[1], yarrow::Request::kLoadBegin, load.bytes()), "");
  for (int i = 0; i < 16; ++i)
    EXPECT_EQ(ask(sessions[1], yarrow::Request::kLoadData, data.bytes()), "");
  ASSERT_EQ(ask(sessions[2], yarrow::Request::kLoadBegin, load.bytes()), "");
  EXPECT_EQ(ask(sessions[2], yarrow::Request::kLoadData, data.bytes()), "");
  EXPECT_EQ(ask(sessions[0], yarrow::Request::kLoadEnd, ""), "nothing is being loaded");
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

// "3 2 2 yarrowd: ...": the last commit, who waits, how many are kept, who made the last and why.
std::string commits(const Session& session) {
  std::string text;
  int64_t waiting = -1;
  auto visit = [](const t_maapi_commit* commit, void* state) {
    *static_cast<std::string*>(state) =
        std::to_string(commit->number) + " " + commit->user + " \"" + commit->comment + "\"";
    return 1;
  };
  EXPECT_EQ(why(maapi_commits(session.fd(), visit, &text, &waiting, nullptr)), "ok");
  return text + (waiting > 0 ? " waits since " + std::to_string(waiting) : "");
}

// In a process of its own an agent's clock could not be put on.
TEST(ConfirmTest, WhatIsNotConfirmedIsTakenBackAndNothingElse) {
  const std::string before = "<policer><name>p</name><rate>1</rate><burst>1</burst></policer>";
  const std::string tried =
      "<app-id><name>try</name></app-id><policer><name>p</name><rate>2</rate></policer>";
  const struct {
    const char* name;
    const char* others;  // committed while it waits
    bool confirm, restart;
    std::string expected;
    const char* last;
  } kCases[] = {
      {"it is taken back alone", "<app-id><name>other</name></app-id>", false, false,
       "<app-id><name>other</name></app-id>" + before,
       "4 yarrowd \"commit 2 was not confirmed in time\""},
      {"after a restart too", "", false, true, before,
       "3 yarrowd \"commit 2 was not confirmed in time\""},
      {"with what others made of it",
       "<policer xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\">"
       "<name>p</name></policer>",
       false, false, before, "4 yarrowd \"commit 2 was not confirmed in time\""},
      {"unless it is confirmed", "", true, false,
       "<app-id><name>try</name></app-id><policer><name>p</name><rate>2</rate><burst>1</burst></"
       "policer>",
       "2 system \"a try\""},
  };
  service::log_to(service::LogTarget::kOff, "");
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.name);
    TempDirectory directory;
    agent::Options options;
    options.directory = directory.path() + "/state";
    std::string error;
    auto start = [&] {
      std::shared_ptr<agent::Handle> handle = agent::start(options, &error);
      EXPECT_TRUE(handle) << error;
      agent::run_in_thread(*handle);
      return handle;
    };
    std::shared_ptr<agent::Handle> agent = start();
    auto session = std::make_unique<Session>(agent::port(*agent));
    ASSERT_EQ(why(session->commit(policy(before))), "ok");
    ASSERT_EQ(why(session->load(policy(tried))), "ok");
    ASSERT_EQ(maapi_candidate_commit_noted(session->fd(), "a try", 10), 2);
    EXPECT_EQ(commits(*session), "2 system \"a try\" waits since 2");
    Session other(agent::port(*agent));
    if (*row.others != '\0') {
      ASSERT_EQ(why(other.commit(policy(row.others))), "ok");
      EXPECT_NE(commits(other).find("waits since 2"), std::string::npos) << "others do not confirm";
    }
    if (row.confirm) {
      EXPECT_EQ(maapi_candidate_commit_noted(session->fd(), nullptr, 0), 0);
    }
    if (row.restart) {
      agent::stop(*agent);
      session.reset();
      agent = nullptr;
      agent = start();
      session = std::make_unique<Session>(agent::port(*agent));
      EXPECT_EQ(commits(*session), "2 system \"a try\" waits since 2");
    }
    __atomic_store_n(&g_clock_ahead, 9 * 60'000, __ATOMIC_RELAXED);
    usleep(1'200'000);  // the agent's tick
    EXPECT_EQ(commits(*session).find("yarrowd"), std::string::npos) << "before its time";
    __atomic_store_n(&g_clock_ahead, 11 * 60'000, __ATOMIC_RELAXED);
    for (int i = 0; i < 100 && commits(*session) != row.last; ++i) usleep(50'000);
    EXPECT_EQ(commits(*session), row.last);
    EXPECT_NE(session->save("/policy").find(policy(row.expected)), std::string::npos)
        << session->save("/policy");
    agent::stop(*agent);
    __atomic_store_n(&g_clock_ahead, 0, __ATOMIC_RELAXED);
  }
}

}  // namespace
}  // namespace test
