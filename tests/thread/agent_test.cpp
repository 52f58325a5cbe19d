// SPDX-License-Identifier: Apache-2.0
// The worker and the agent's writes against a yarrowd process.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <thread>

#include "base/pol_name.h"
#include "exchange/pol_thread_wait.h"
#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "policy/pol_show_data.h"
#include "support/golden.h"
#include "support/policy_fixture.h"
#include "support/seams.h"
#include "tests/agent/support.h"

namespace {

std::atomic<int> g_waits{0};
std::function<void(int)> g_on_wait;  // set while nobody waits
std::string g_show_file;

}  // namespace

// NOLINTBEGIN: names of the linker's
extern "C" {
bool __wrap_pol_thread_wait(t_pol_yarrow_thread* /*thread*/, unsigned /*seconds*/) {
  int count = ++g_waits;
  if (g_on_wait) g_on_wait(count);
  return true;
}
// The show data's file lies where tests may write.
FILE* __real_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
  bool show = strcmp(path, "/etc/zenodra/show_fwd_pol_data.xml") == 0;
  return __real_fopen(show ? g_show_file.c_str() : path, mode);
}
int __real_maapi_load_config(int sock, int trans, unsigned flags, const char* path);
int __wrap_maapi_load_config(int sock, int trans, unsigned flags, const char* path) {
  EXPECT_STREQ(path, "/etc/zenodra/show_fwd_pol_data.xml");
  return __real_maapi_load_config(sock, trans, flags, g_show_file.c_str());
}
}
// NOLINTEND

namespace {

using test::policy;
using test::why;

const char kName[] = "a {\"b\\";  // what would end a key
const char kKey[] = "{\"a {\\\"b\\\\\"}";

class RealAgentTest : public PolicyTest {
 protected:
  // The library's connections find the test's agent by its port.
  void SetUp() override {
    setenv(YARROW_PORT_VARIABLE, std::to_string(agent_.port()).c_str(), 1);
    g_show_file = directory_.path() + "/show.xml";
    g_waits = 0;
    seams::log_of_all_threads(true);
    PolicyTest::SetUp();
  }
  void TearDown() override {
    PolicyTest::TearDown();
    seams::log_of_all_threads(false);
    unsetenv(YARROW_PORT_VARIABLE);
    g_on_wait = nullptr;
    seams::take_log();
  }

  void wait_until_idle() {
    for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
      while (!pol::thread_queue_empty(&ctx->thread, static_cast<pol::ThreadQueue>(queue))) {
        usleep(100);
      }
    }
  }

  void fetch(int32_t type, const char* name) {
    pol::thread_push_fetch(&ctx->thread, pol::QUEUE_FETCH, static_cast<uint32_t>(type), name);
    wait_until_idle();
  }

  static std::string cached(int32_t type) {
    uint32_t room = 0;
    char* buffer = nullptr;
    EXPECT_EQ(pol_xml_config_get_str(type, kName, &buffer, &room), POL_OK);
    std::string text = buffer != nullptr ? buffer : "none";
    pol_free(buffer, pol::MEM_UNCOUNTED);
    return text;
  }

  int count(const char* path, int datastore = MAAPI_RUNNING) {
    int trans = session_.begin(datastore, MAAPI_READ);
    int found = maapi_num_instances(session_.fd(), trans, "%s", path);
    EXPECT_EQ(why(maapi_finish_trans(session_.fd(), trans)), "ok");
    return found;
  }

  test::TempDirectory directory_;
  test::AgentProcess agent_;
  test::Session session_{agent_.port()};
};

// What the cache holds, by type: an object's element, whether it is a list, and what it may hold;
// `second` replaces `first` when it is merged.
struct Kind {
  int32_t type;
  std::string element;
  bool list;
  std::string first;
  std::string second;
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> kinds = [] {
    std::istringstream in(read_golden("thread/kinds.in"));
    std::vector<Kind> read;
    for (Kind k; in >> k.type >> k.element >> k.list >> k.first >> k.second;) read.push_back(k);
    return read;
  }();
  return kinds;
}

std::string object(const Kind& kind, const std::string& inner) {
  return "<" + kind.element + "><name>" + kName + "</name>" + inner + "</" + kind.element + ">";
}

std::string document(const Kind& kind, const std::string& inner) {
  std::string text = object(kind, inner);
  return policy(kind.list ? "<lists>" + text + "</lists>" : text);
}

TEST_F(RealAgentTest, EveryTypeIsFetchedReplacedAndGone) {
  for (const Kind& kind : kinds()) {
    SCOPED_TRACE(kind.element);
    const std::string closing = kind.type == 1 ? "</data-policy>" : "";
    pol_xml_config_find_or_create(kind.type, kName);
    for (const std::string& inner : {kind.first, kind.second}) {
      ASSERT_EQ(why(session_.commit(document(kind, inner))), "ok");
      fetch(kind.type, kName);
      EXPECT_EQ(cached(kind.type) + closing, object(kind, inner));
    }
    const std::string last = cached(kind.type);
    const std::string path =
        std::string(kind.list ? "/policy/lists/" : "/policy/") + kind.element + kKey;
    ASSERT_EQ(why(session_.commit_edits({{path, nullptr}})), "ok");
    g_waits = 0;
    fetch(kind.type, kName);
    EXPECT_EQ(g_waits, 4) << "what is not there is asked for five times";
    EXPECT_EQ(cached(kind.type), last);
    pol_xml_config_find_and_delete(kind.type, kName);
    EXPECT_EQ(cached(kind.type), "none");
  }
}

// Each round the object goes from the agent or from the cache while it is being fetched.
TEST_F(RealAgentTest, ObjectsMayGoWhileTheyAreFetched) {
  const Kind& kind = kinds()[3];
  for (int round = 0; round < 60; ++round) {
    ASSERT_EQ(why(session_.commit(document(kind, kind.first))), "ok");
    pol_xml_config_find_or_create(kind.type, kName);
    pol::thread_push_fetch(&ctx->thread, pol::QUEUE_FETCH, 4, kName);
    usleep(static_cast<useconds_t>(round * 20));
    if (round % 2 == 0) {
      ASSERT_EQ(
          why(session_.commit_edits({{std::string("/policy/lists/vpn-list") + kKey, nullptr}})),
          "ok");
    } else {
      pol_xml_config_find_and_delete(kind.type, kName);
    }
    wait_until_idle();
    std::string text = cached(kind.type);
    EXPECT_TRUE(text == "none" || text == object(kind, kind.first)) << text;
    pol_xml_config_find_and_delete(kind.type, kName);
  }
  EXPECT_EQ(current(pol::MEM_CONFIG_XML), 0U);
  EXPECT_EQ(current(pol::MEM_FETCH_XML), 0U);
}

TEST_F(RealAgentTest, LabelSetsReplaceWhatTheSequenceHad) {
  const std::string sequence = "<sequence><number>10</number></sequence>";
  ASSERT_EQ(why(session_.commit(
                document(kinds()[0], "<vpn-list><name>V</name>" + sequence + "</vpn-list>"))),
            "ok");
  const std::string set =
      std::string("/policy/data-policy") + kKey + "/vpn-list{V}/sequence{10}/action/set";
  for (uint32_t count : {0U, 64U, 1U, 0U}) {
    SCOPED_TRACE(count);
    t_pol_label_set labels = {};
    pol::copy_name(labels.policy, kName);
    pol::copy_name(labels.vpn_list, "V");
    labels.sequence = 10;
    labels.vpn_label = 1000 + count;
    labels.count = count;
    for (uint32_t i = 0; i < count; ++i) {
      labels.tlocs[i] = {tloc4(0x0a000001 + i, 1, i % 3), 4'000'000'000U + i};
    }
    pol::thread_push_labels(&ctx->thread, labels);
    wait_until_idle();
    std::string entries;
    for (uint32_t i = 0; i < count; ++i) {
      const char* const encaps[] = {"", "<encap>gre</encap>", "<encap>ipsec</encap>"};
      entries += "<kel-tloc-pref-list><index>" + std::to_string(i) + "</index><address>10.0.0." +
                 std::to_string(i + 1) + "</address><color>mpls</color>" + encaps[i % 3] +
                 "<label>" + std::to_string(4'000'000'000U + i) + "</label></kel-tloc-pref-list>";
    }
    const std::string saved = session_.save(set);
    EXPECT_NE(saved.find("<set>" + entries + "<vpn-label>" + std::to_string(1000 + count) +
                         "</vpn-label></set>"),
              std::string::npos)
        << saved.substr(0, 1000);
  }
  EXPECT_EQ(g_waits, 0);
}

// The worker applies one transaction until the lock is free; by then what it labels is gone.
TEST_F(RealAgentTest, ALabelForASequenceDeletedWhileTheWorkerWaitsBringsNothingBack) {
  const std::string list = std::string("/policy/data-policy") + kKey + "/vpn-list{V}/sequence";
  ASSERT_EQ(
      why(session_.commit(document(kinds()[0],
                                   "<vpn-list><name>V</name><sequence><number>10</number><match>"
                                   "<app-list>a</app-list></match></sequence></vpn-list>"))),
      "ok");
  test::Session other(agent_.port());
  ASSERT_EQ(why(maapi_lock(other.fd(), MAAPI_CANDIDATE)), "ok");
  g_on_wait = [&](int waits) {
    if (waits != 2) return;
    EXPECT_EQ(why(other.commit_edits({{list + "{10}", nullptr}})), "ok");
    EXPECT_EQ(why(maapi_unlock(other.fd(), MAAPI_CANDIDATE)), "ok");
  };
  pol_debug_set(1);
  seams::take_log();
  t_pol_label_set labels = {};
  pol::copy_name(labels.policy, kName);
  pol::copy_name(labels.vpn_list, "V");
  labels.sequence = 10;
  labels.vpn_label = 1000;
  pol::thread_push_labels(&ctx->thread, labels);
  wait_until_idle();
  const std::string log = seams::take_log();
  pol_debug_set(0);
  EXPECT_NE(log.find("sequence{10}: was deleted meanwhile"), std::string::npos) << log;
  EXPECT_NE(log.find("Failed on multiple retries for queue 0"), std::string::npos) << log;
  EXPECT_EQ(count(list.c_str()), 0);
  EXPECT_EQ(maapi_commit_id(session_.fd()), 2) << "the policy, and the deletion of its sequence";
}

TEST_F(RealAgentTest, ShowDataIsPublishedCountedAndCleared) {
  EXPECT_EQ(pol_show_fwd_policy_yarrow_delete(), POL_OK) << "nothing is there yet";
  std::string lists;
  std::string objects = "<app-id><name>i</name></app-id>";
  for (const Kind& kind : kinds()) (kind.list ? lists : objects) += object(kind, kind.second);
  auto received = [](const std::string& inner) {
    return policy("<from-pellux>" + inner + "</from-pellux>");
  };
  // Each is merged into what is there, also a second time.
  for (const std::string& part : {"<lists>" + lists + "</lists>", objects, objects}) {
    EXPECT_EQ(pol_show_fwd_policy_yarrow_set(received(part).c_str()), POL_OK) << seams::take_log();
  }
  for (const char* path : pol_show_data_pol_from_pellux) {
    EXPECT_EQ(count(path, MAAPI_OPERATIONAL), 1) << path;
  }
  seams::take_log();
  EXPECT_EQ(pol_show_fwd_policy_yarrow_set(policy("<no-such/>").c_str()), POL_EAGENT);
  EXPECT_NE(seams::take_log().find("[POL] Failed to set xml show data, -1yarrow_str "),
            std::string::npos);
  EXPECT_EQ(pol_show_fwd_policy_yarrow_delete(), POL_OK);
  for (const char* path : pol_show_data_pol_from_pellux) {
    EXPECT_EQ(count(path, MAAPI_OPERATIONAL), 0) << path;
  }
}

TEST_F(RealAgentTest, ReceivedPolicyIsDeletedOnceTheDatabaseIsFree) {
  const std::string received = "<policy-from-pellux xmlns=\"urn:zenodra:policy\">" +
                               object(kinds()[7], kinds()[7].first) + "</policy-from-pellux>";
  int trans = session_.begin();
  ASSERT_EQ(pol_fwd_policy_yarrow_set(session_.fd(), trans, static_cast<uint32_t>(received.size()),
                                      received.c_str()),
            0);
  ASSERT_EQ(why(maapi_apply_trans(session_.fd(), trans, 0)), "ok");
  ASSERT_EQ(why(maapi_candidate_commit(session_.fd())), "ok");
  ASSERT_EQ(why(maapi_finish_trans(session_.fd(), trans)), "ok");
  ASSERT_EQ(count("/policy-from-pellux/sla-class"), 1);

  test::Session other(agent_.port());
  ASSERT_EQ(why(maapi_lock(other.fd(), MAAPI_CANDIDATE)), "ok");
  g_on_wait = [&](int waits) {
    if (waits == 3) {
      EXPECT_EQ(why(maapi_unlock(other.fd(), MAAPI_CANDIDATE)), "ok");
    }
  };
  EXPECT_EQ(pol_fwd_policy_yarrow_delete(), POL_OK);
  EXPECT_EQ(g_waits, 3);
  EXPECT_EQ(count("/policy-from-pellux/sla-class"), 0);
}

TEST_F(RealAgentTest, AnAgentThatDiesFailsItsRequestsOnly) {
  pol_xml_config_find_or_create(4, kName);
  ASSERT_EQ(why(session_.commit(document(kinds()[3], kinds()[3].first))), "ok");
  fetch(4, kName);
  const std::string text = cached(4);
  agent_.kill_hard();
  pol_debug_set(1);
  fetch(4, kName);
  EXPECT_NE(seams::take_log().find("Failed on multiple retries for queue 2"), std::string::npos);
  EXPECT_EQ(cached(4), text);
  EXPECT_EQ(pol_show_fwd_policy_yarrow_delete(), POL_EAGENT);
  EXPECT_EQ(pol_fwd_policy_yarrow_delete(), POL_EAGENT);
}

TEST_F(RealAgentTest, AnAgentThatHangsHoldsUpTheEndForOneTimeLimitAlone) {
  const test::Environment with(YARROW_TIMEOUT_VARIABLE, "1");
  pol_xml_config_find_or_create(4, kName);
  ASSERT_EQ(why(session_.commit(document(kinds()[3], kinds()[3].first))), "ok");
  fetch(4, kName);
  kill(agent_.pid(), SIGSTOP);
  for (int i = 0; i < 5; ++i) pol::thread_push_fetch(&ctx->thread, pol::QUEUE_FETCH, 4, kName);
  usleep(100'000);  // the worker waits for an answer
  const auto begin = std::chrono::steady_clock::now();
  pol_destroy();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2'500));
  kill(agent_.pid(), SIGCONT);
  init();
}

}  // namespace
