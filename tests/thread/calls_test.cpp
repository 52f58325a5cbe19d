// SPDX-License-Identifier: Apache-2.0
// What the library asks of the agent, call by call: each call fails in turn, at every place where it
// is made.
#include <functional>

#include "pol_xml_config_internal.h"
#include "policy/pol_show_data.h"
#include "scripted.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

// One call in the order of calls. When it fails: what is logged, and what is called to clean up.
// Without a message the failure is put up with.
struct Step {
  std::string call;
  std::string message;
  std::string cleanup;
};

const char kReason[] = "error 7 (7) as scripted";

std::string with_reason(std::string text) {
  size_t at = text.find('@');
  if (at != std::string::npos) text.replace(at, 1, kReason);
  return text;
}

class CallsTest : public PolicyTest {
 protected:
  void SetUp() override {
    PolicyTest::SetUp();
    scripted::reset();
    worker_.ctx = ctx;
    worker_.agent_fd = 0;
    labels_.sequence = 10;
    labels_.vpn_label = 77;
    labels_.count = 2;
    snprintf(labels_.policy, sizeof labels_.policy, "p");
    snprintf(labels_.vpn_list, sizeof labels_.vpn_list, "v");
    labels_.tlocs[0] = {tloc4(0x0a000001, 1, 0), 5};
    labels_.tlocs[1] = {tloc4(0x0a000002, 2, 2), 6};
  }

  void TearDown() override {
    EXPECT_EQ(scripted::open_handles(), 0);
    EXPECT_EQ(scripted::bad_closes(), 0);
    PolicyTest::TearDown();
    scripted::reset();
    seams::take_log();
  }

  // Runs the operation once as it should go and once with each call failing. Lines are written at
  // debug level 1, and those `always` has a word of at level 0 too.
  void check(const std::vector<Step>& steps, bool always, const std::function<void()>& prepare,
             const std::function<bool()>& run) {
    int before = scripted::descriptors();
    std::string made;
    for (size_t failing = 0; failing <= steps.size(); ++failing) {
      const Step& step = failing < steps.size() ? steps[failing] : Step{};
      SCOPED_TRACE(std::to_string(failing) + " " + step.call);
      const bool fatal = !step.message.empty();
      for (uint32_t level : {1U, 0U}) {
        scripted::reset();
        prepare();
        scripted::fail_step(static_cast<int>(failing) + 1);
        pol_debug_set(level);
        seams::take_log();
        EXPECT_EQ(run(), !fatal);
        std::string log = seams::take_log();
        const std::string line = "[POL] " + with_reason(step.message);
        bool system = step.call == "socket" || step.call == "fopen";
        bool shown = fatal && (level == 1 || (always && !system));
        if (fatal) {
          EXPECT_EQ(log.find(line) != std::string::npos, shown) << log;
        }
        EXPECT_TRUE(level == 1 || shown || log.empty()) << log;
        // What follows a failure that is put up with depends on what failed.
        if (fatal || failing == steps.size()) {
          const std::string last = fatal ? step.call + " " + step.cleanup : "";
          EXPECT_EQ(scripted::trace(), made + last);
        }
        EXPECT_EQ(scripted::open_handles(), 0);
        EXPECT_EQ(scripted::bad_closes(), 0);
        EXPECT_EQ(scripted::descriptors(), before);
      }
      made += step.call.empty() ? "" : step.call + " ";
    }
  }

  bool fetch(uint32_t type = POL_XML_VPN_LIST, const char* name = "v") {
    return pol::xml_fetch(&worker_, type, name);
  }

  static std::string saved(const std::string& inner) {
    return "<config><policy><lists><vpn-list>" + inner + "</vpn-list></lists></policy></config>";
  }

  t_pol_yarrow_thread worker_ = {};
  t_pol_label_set labels_ = {};
};

TEST_F(CallsTest, EachCallOfALabelSetFails) {
  const std::string set = "/policy/data-policy{p}/vpn-list{v}/sequence{10}/action/set";
  const std::string list = set + "/kel-tloc-pref-list";
  const std::string why = "error 7(7)-as scripted\n";
  const char finish[] = "maapi_finish_trans ";
  check(
      {
          {"maapi_start_trans_flags2", "Failed to start a transaction -1, yarrow_str @\n", ""},
          {"maapi_delete", "tloc-list " + list + "{0} delete failed - " + why, finish},
          {"maapi_delete", "tloc-list " + list + "{1} delete failed - " + why, finish},
          {"maapi_delete", "vpn-label " + set + "/vpn-label delete failed - " + why, finish},
          {"maapi_set_object", "tloc-list " + list + "{0} create failed - " + why, finish},
          {"maapi_set_object", "tloc-list " + list + "{1} create failed - " + why, finish},
          {"maapi_set_elem", "Failed to set label to yarrow, -1yarrow_str @\n\n", finish},
          {"maapi_apply_trans", "Failed to apply transaction to yarrow, -1yarrow_str @\n", finish},
          {"maapi_candidate_commit", "Failed to commit transaction to yarrow, -1yarrow_str @\n",
           finish},
          {"maapi_finish_trans", "Failed to finish transaction to yarrow, -1yarrow_str @\n", ""},
      },
      false, [] { scripted::set_positions(1); },
      [&] { return pol::label_write(&worker_, labels_); });
  EXPECT_EQ(scripted::objects(), "10 15 28 1 12 \n10 15 28 28 12 \n77\n");
}

TEST_F(CallsTest, EachCallOfAFetchFails) {
  pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  const std::string path = "path: /policy/lists/vpn-list{v}\n";
  const char finish[] = "maapi_finish_trans ";
  check(
      {
          {"maapi_start_trans_flags2", "Failed to start a transaction -1, yarrow_str @\n", ""},
          {"maapi_save_config", "Failed to get config from yarrowyarrow_str @, " + path, finish},
          {"socket", "Failed to initialise the sock, " + path, finish},
          {"yarrow_stream_connect", "Failed to connect yarrow_str @, " + path, finish},
          {"recv", "Error fetching data from yarrow, " + path, finish},
          {"recv", "Error fetching data from yarrow, " + path, finish},
          {"maapi_save_config_result", "Failed to retrieve policy config yarrow_str @, " + path,
           finish},
          {"maapi_finish_trans", "", ""},
      },
      false, [] { scripted::set_stream(saved("x")); }, [&] { return fetch(); });
}

TEST_F(CallsTest, EachCallOfShowDataFails) {
  check(
      {
          {"socket", "Failed to do get new socket (-1)\n", ""},
          {"maapi_connect", "Failed to do maapi_connect (-1)yarrow_str @\n", ""},
          {"maapi_start_user_session3", "Failed to start a user sessionyarrow_str @\n",
           "maapi_close "},
          {"maapi_start_trans_flags2", "Failed to start a transaction -1, yarrow_str @\n",
           "maapi_end_user_session maapi_close "},
          {"fopen",
           "Cannot open/create XML file /etc/zenodra/show_fwd_pol_data.xmlto save show policy "
           "data\n",
           "maapi_finish_trans maapi_end_user_session maapi_close "},
          {"maapi_load_config", "Failed to set xml show data, -1yarrow_str @\n <x/> \n",
           "maapi_finish_trans maapi_end_user_session maapi_close "},
          {"maapi_apply_trans", "Cannot apply maapi transaction: error 7, as scripted\n",
           "maapi_finish_trans maapi_end_user_session maapi_close "},
          {"maapi_finish_trans", "", ""},
          {"maapi_end_user_session", "", ""},
          {"maapi_close", "", ""},
      },
      true, [] {}, [] { return pol_show_fwd_policy_yarrow_set("<x/>") == POL_OK; });
  scripted::reset();
  EXPECT_EQ(pol_show_fwd_policy_yarrow_set(nullptr), POL_EAGENT);
  EXPECT_EQ(scripted::trace(), "") << "nothing is connected for nothing";
}

// The script has something below every path but "/policy/from-pellux/policer".
TEST_F(CallsTest, EachCallOfClearingShowDataFails) {
  const std::string closing = "cdb_end_session cdb_close ";
  std::vector<Step> steps = {
      {"socket", "Could not allocate socket, errno: ", ""},
      {"cdb_connect", "Cannot connect to CDB (-1) error 7 (7) : as scripted\n", ""},
      {"cdb_start_session2", "Failed to start cdb session error 7 (7) : as scripted\n", closing},
  };
  for (const std::string path : pol_show_data_pol_from_pellux) {
    steps.push_back({"cdb_num_instances", "", ""});
    if (path == "/policy/from-pellux/policer") continue;
    steps.push_back({"cdb_delete",
                     "Failed to delete/clean " + path + ", error 7 (7) : as scripted\n", closing});
  }
  steps.push_back({"cdb_end_session", "", ""});
  steps.push_back({"cdb_close", "", ""});
  check(
      steps, true, [] {}, [] { return pol_show_fwd_policy_yarrow_delete() == POL_OK; });
}

TEST_F(CallsTest, EachCallOfDeletingReceivedPolicyFails) {
  const char all[] = "maapi_finish_trans maapi_end_user_session maapi_close ";
  check(
      {
          {"socket", "Failed to do get new socket (-1)\n", ""},
          {"maapi_connect", "Failed to do maapi_connect (-1)yarrow_str @\n", ""},
          {"maapi_start_user_session3", "Failed to start a user sessionyarrow_str @\n",
           "maapi_close "},
          {"maapi_start_trans_flags2", "Failed to start a transaction -1yarrow_str @\n",
           "maapi_end_user_session maapi_close "},
          {"maapi_delete",
           "Failed to delete config of path /policy-from-pellux from yarrow, -1yarrow_str @\n",
           all},
          {"maapi_apply_trans", "Failed to apply transaction to yarrow, -1 yarrow_str @, retry 0\n",
           all},
          {"maapi_candidate_commit", "Failed to commit transaction to yarrow, -1yarrow_str @\n",
           all},
          {"maapi_finish_trans", "", ""},
          {"maapi_end_user_session", "", ""},
          {"maapi_close", "", ""},
      },
      true, [] {}, [] { return pol_fwd_policy_yarrow_delete() == POL_OK; });
}

TEST_F(CallsTest, LoadingIntoACallersTransactionSaysWhatWasRefused) {
  EXPECT_EQ(pol_fwd_policy_yarrow_set(0, 1, 4, "<x/>"), 0);
  seams::take_log();
  scripted::fail_call("maapi_load_config_cmds", 0, 1);
  EXPECT_EQ(pol_fwd_policy_yarrow_set(0, 1, 4, "<x/>"), -1);
  std::string log = seams::take_log();
  EXPECT_NE(log.find("Failed to load config cmds, reason: error 7 (7/as scripted)\n"),
            std::string::npos);
  EXPECT_NE(log.find("Policy XML (4 bytes) <x/>\n"), std::string::npos);
}

TEST_F(CallsTest, ALockedDatabaseIsAskedAgainForSoLong) {
  struct {
    bool label;
    int result;
    int times;
    int waits;
    bool done;
  } rows[] = {
      {true, -1, 3, 3, true},   {true, -1, 30, 30, true},  {true, -1, 31, 30, false},
      {false, -1, 3, 3, true},  {false, -1, 31, 31, true}, {false, -1, 32, 31, false},
      {false, 1, 100, 0, true},
  };
  pol_debug_set(3);
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.times) + (row.label ? " label" : " delete"));
    scripted::reset();
    scripted::answer_apply(row.result, row.times);
    seams::take_log();
    EXPECT_EQ(
        row.label ? pol::label_write(&worker_, labels_) : pol_fwd_policy_yarrow_delete() == POL_OK,
        row.done);
    EXPECT_EQ(scripted::waits(), row.waits);
    std::string log = seams::take_log();
    int lines = 0;
    const std::string line = "[POL] Database is locked - Retrying\n";
    for (size_t at = 0; (at = log.find(line, at)) != std::string::npos; ++at) ++lines;
    EXPECT_EQ(lines, row.waits);
    EXPECT_EQ(log.find("Failed to apply") == std::string::npos, row.done) << log;
  }
}

TEST_F(CallsTest, LabelPathsHoldTheWholeNamesOrAreNotSent) {
  labels_.count = 1000;  // no more than there is room for
  scripted::set_positions(64);
  EXPECT_TRUE(pol::label_write(&worker_, labels_));
  EXPECT_EQ(scripted::calls("maapi_set_object"), 64);
  EXPECT_EQ(scripted::calls("maapi_delete"), 65);

  labels_.count = 0;
  scripted::reset();
  snprintf(labels_.policy, sizeof labels_.policy, "my \"p\\}");
  EXPECT_TRUE(pol::label_write(&worker_, labels_));
  EXPECT_EQ(scripted::paths().rfind("/policy/data-policy{\"my \\\"p\\\\}\"}/vpn-list{v}/seq", 0),
            0U)
      << scripted::paths();

  // 510 characters would leave a path that names the policy's whole list when it is cut.
  for (size_t length : {200, 430, 440, 450, 460, 510}) {
    std::string name(length, 'n');
    snprintf(labels_.policy, sizeof labels_.policy, "%s", name.c_str());
    scripted::reset();
    bool written = pol::label_write(&worker_, labels_);
    EXPECT_EQ(written, length < 435) << length;
    EXPECT_EQ(scripted::calls("maapi_delete"), written ? 2 : 0);
    EXPECT_EQ(scripted::open_handles(), 0);
  }
}

TEST_F(CallsTest, OnlyAWholeTextIsStoredOfAnyLength) {
  t_pol_xml_config* config = pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  auto stored = [&] { return std::string(config->text != nullptr ? config->text : "none"); };
  const std::string text = saved("<name>v</name>");
  const size_t footer_end = text.find("</lists>") + 8;
  for (size_t length = 0; length <= text.size(); ++length) {
    scripted::set_stream(text.substr(0, length));
    EXPECT_EQ(fetch(), length >= footer_end) << length;
  }
  EXPECT_EQ(stored(), "<vpn-list><name>v</name></vpn-list>");
  for (size_t length : {4095, 4096, 4097, 8191, 8192, 8193, 50'000}) {
    std::string inner(length - saved("").size(), 'x');
    scripted::set_stream(saved(inner));
    EXPECT_TRUE(fetch()) << length;
    EXPECT_EQ(stored(), "<vpn-list>" + inner + "</vpn-list>");
    EXPECT_EQ(config->size, strlen(config->text));
  }
  std::string with_nul = text;
  with_nul[text.find("v</name>")] = '\0';
  scripted::set_stream(with_nul);
  EXPECT_FALSE(fetch()) << "what stands behind a NUL is not there";
}

TEST_F(CallsTest, AFetchWithoutMemoryLeavesNothingBehind) {
  t_pol_xml_config* config = pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  scripted::set_stream(saved(std::string(5000, 'x')));
  EXPECT_TRUE(fetch());
  pol_debug_set(1);
  const char* const messages[] = {
      "Failed to allocate memory for fwd policy, path: /policy/lists/vpn-list{v}\n",
      "Failed to allocate memory for fwd policy, path: /policy/lists/vpn-list{v}\n",
      "Could not allocate memory\n"};
  for (int nth = 1; nth <= 3; ++nth) {
    UncountedFailures received(pol::MEM_FETCH_XML);
    seams::take_log();
    seams::Fail fail(nth);
    EXPECT_FALSE(fetch()) << nth;
    EXPECT_NE(seams::take_log().find(messages[nth - 1]), std::string::npos) << nth;
    EXPECT_EQ(scripted::open_handles(), 0);
    EXPECT_EQ(config->text == nullptr, nth == 3) << "the old text goes for the new one";
  }
  ++g_pol_mem_info[pol::MEM_CONFIG_XML].frees;  // counted, and never there
  EXPECT_EQ(config->size, 0U);
  EXPECT_TRUE(fetch());
}

TEST_F(CallsTest, AnObjectThatIsGoneStoresNothing) {
  scripted::set_stream(saved("x"));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(current(pol::MEM_CONFIG_XML), 0U);
  EXPECT_EQ(pol::xml_fetch_time(POL_XML_VPN_LIST, "v").end, 0);
  for (uint32_t type : {0U, 11U, 0xffffffffU}) {
    EXPECT_TRUE(fetch(type)) << "and one of no type is dropped";
    EXPECT_EQ(scripted::open_handles(), 0);
  }
}

TEST_F(CallsTest, FetchTimesAreOfTheLastFetchAndTheLongest) {
  pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  const time_t now = time(nullptr);
  EXPECT_TRUE(pol::xml_config_store(ctx, POL_XML_VPN_LIST, "v", "<vpn-list>", now - 100));
  EXPECT_TRUE(pol::xml_config_store(ctx, POL_XML_VPN_LIST, "v", "<vpn-list>", now - 50));
  t_pol_fetch_time fetched = pol::xml_fetch_time(POL_XML_VPN_LIST, "v");
  EXPECT_EQ(fetched.start, now - 50);
  EXPECT_GE(fetched.end, now);
  EXPECT_GE(fetched.longest, 100);
  EXPECT_LT(fetched.longest, 105);
}

}  // namespace
