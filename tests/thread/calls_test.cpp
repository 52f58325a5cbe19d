// SPDX-License-Identifier: Apache-2.0
// What the library asks of the agent, call by call: each call fails in turn, at every place where it
// is made.
#include <functional>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "policy/pol_show_data.h"
#include "policy/pol_xml_compat.h"
#include "scripted.h"
#include "support/golden.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

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
    EXPECT_EQ(scripted::state()->open, 0);
    EXPECT_EQ(scripted::state()->bad_closes, 0);
    PolicyTest::TearDown();
    scripted::reset();
    seams::take_log();
  }

  bool fetch(uint32_t type = POL_XML_VPN_LIST, const char* name = "v") {
    return pol::xml_fetch(&worker_, type, name);
  }

  static std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
  }

  static std::string saved(const std::string& inner) {
    return "<config><policy><lists><vpn-list>" + inner + "</vpn-list></lists></policy></config>";
  }

  t_pol_yarrow_thread worker_ = {};
  t_pol_label_set labels_ = {};
};

// Each operation as it should go, and with each of its calls failing in turn: what is called from
// there on, and what else is logged at debug levels 1 and 0. The script has something below every
// path but "/policy/from-pellux/policer".
TEST_F(CallsTest, EachCallFailsAsItsGoldenHasIt) {
  const std::pair<const char*, std::function<bool()>> operations[] = {
      {"label set", [&] { return pol::label_write(&worker_, labels_); }},
      {"fetch", [&] { return fetch(); }},
      {"show data", [] { return pol_show_fwd_policy_yarrow_set("<x/>") == POL_OK; }},
      {"no show data", [] { return pol_show_fwd_policy_yarrow_set(nullptr) == POL_OK; }},
      {"clear show data", [] { return pol_show_fwd_policy_yarrow_delete() == POL_OK; }},
      {"received policy", [] { return pol_fwd_policy_yarrow_set(0, 1, 4, "<x/>") == 0; }},
      {"delete received policy", [] { return pol_fwd_policy_yarrow_delete() == POL_OK; }},
  };
  pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  const int before = scripted::descriptors();
  std::ostringstream all;
  for (const auto& [name, run] : operations) {
    all << "== " << name << "\n";
    std::vector<std::string> calls;
    std::set<std::string> usual;
    for (size_t failing = 0; failing <= calls.size(); ++failing) {
      if (failing > 0) all << calls[failing - 1] << " fails: ";
      for (uint32_t level : {1U, 0U}) {
        scripted::reset();
        scripted::state()->positions = 1;
        scripted::state()->stream = saved("x");
        scripted::state()->fail_step = static_cast<int>(failing);
        pol_debug_set(level);
        seams::take_log();
        const bool done = run();
        std::istringstream log(seams::take_log());
        std::vector<std::string> made = words(scripted::state()->trace);
        if (failing == 0) calls = made;
        if (level == 1) {
          for (size_t i = failing; i < made.size(); ++i) all << made[i] << " ";
          all << (done ? "done" : "refused") << "\n" << scripted::state()->objects;
        }
        for (std::string line; std::getline(log, line);) {
          if (line.find("[POL]") != std::string::npos) line.erase(0, line.find("[POL]"));
          if (failing == 0 ? usual.insert(line).second : !usual.contains(line)) {
            all << "  " << level << " " << line << "\n";
          }
        }
        EXPECT_EQ(scripted::state()->open, 0) << name << failing;
        EXPECT_EQ(scripted::state()->bad_closes, 0) << name << failing;
        EXPECT_EQ(scripted::descriptors(), before) << name << failing;
      }
    }
  }
  expect_golden("thread/calls.ok", all.str());
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
    scripted::state()->apply_result = row.result;
    scripted::state()->apply_times = row.times;
    seams::take_log();
    EXPECT_EQ(
        row.label ? pol::label_write(&worker_, labels_) : pol_fwd_policy_yarrow_delete() == POL_OK,
        row.done);
    EXPECT_EQ(scripted::state()->waits, row.waits);
    std::string log = seams::take_log();
    EXPECT_EQ(scripted::occurrences(log, "[POL] Database is locked - Retrying\n"), row.waits);
    EXPECT_EQ(log.find("Failed to apply") == std::string::npos, row.done) << log;
  }
}

TEST_F(CallsTest, LabelPathsHoldTheWholeNamesOrAreNotSent) {
  labels_.count = 1000;  // no more than there is room for
  scripted::state()->positions = 64;
  EXPECT_TRUE(pol::label_write(&worker_, labels_));
  EXPECT_EQ(scripted::calls("maapi_set_object"), 64);
  EXPECT_EQ(scripted::calls("maapi_delete"), 65);

  labels_.count = 0;
  scripted::reset();
  snprintf(labels_.policy, sizeof labels_.policy, "my \"p\\}");
  EXPECT_TRUE(pol::label_write(&worker_, labels_));
  EXPECT_EQ(
      scripted::state()->paths.rfind("/policy/data-policy{\"my \\\"p\\\\}\"}/vpn-list{v}/seq", 0),
      0U)
      << scripted::state()->paths;

  labels_.sequence = 4'000'000'000;
  scripted::reset();
  EXPECT_TRUE(pol::label_write(&worker_, labels_));
  EXPECT_NE(scripted::state()->paths.find("/sequence{-294967296}/"), std::string::npos);
  labels_.sequence = 10;

  // 510 characters would leave a path that names the policy's whole list when it is cut.
  for (size_t length : {200, 430, 440, 450, 460, 510}) {
    std::string name(length, 'n');
    snprintf(labels_.policy, sizeof labels_.policy, "%s", name.c_str());
    scripted::reset();
    bool written = pol::label_write(&worker_, labels_);
    EXPECT_EQ(written, length < 435) << length;
    EXPECT_EQ(scripted::calls("maapi_delete"), written ? 2 : 0);
    EXPECT_EQ(scripted::state()->open, 0);
  }
}

TEST_F(CallsTest, OnlyAWholeTextIsStoredOfAnyLength) {
  t_pol_xml_config* config = pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  auto stored = [&] { return std::string(config->text != nullptr ? config->text : "none"); };
  const std::string text = saved("<name>v</name>");
  const size_t footer_end = text.find("</lists>") + 8;
  for (size_t length = 0; length <= text.size(); ++length) {
    scripted::state()->stream = text.substr(0, length);
    EXPECT_EQ(fetch(), length >= footer_end) << length;
  }
  EXPECT_EQ(stored(), "<vpn-list><name>v</name></vpn-list>");
  for (size_t length : {4095, 4096, 4097, 8191, 8192, 8193, 50'000}) {
    std::string inner(length - saved("").size(), 'x');
    scripted::state()->stream = saved(inner);
    EXPECT_TRUE(fetch()) << length;
    EXPECT_EQ(stored(), "<vpn-list>" + inner + "</vpn-list>");
    EXPECT_EQ(config->size, strlen(config->text));
  }
  std::string with_nul = text;
  with_nul[text.find("v</name>")] = '\0';
  scripted::state()->stream = with_nul;
  EXPECT_FALSE(fetch()) << "what stands behind a NUL is not there";
}

TEST_F(CallsTest, AFetchWithoutMemoryLeavesNothingBehind) {
  pol_debug_set(3);  // its lines come from outside the cache's lock as well
  t_pol_xml_config* config = pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v");
  scripted::state()->stream = saved(std::string(5000, 'x'));
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
    EXPECT_EQ(scripted::state()->open, 0);
    EXPECT_EQ(config->text == nullptr, nth == 3) << "the old text goes for the new one";
  }
  ++g_pol_mem_info[pol::MEM_CONFIG_XML].frees;  // counted, and never there
  EXPECT_EQ(config->size, 0U);
  EXPECT_TRUE(fetch());
  seams::Fail fail(1);
  char* buffer = nullptr;
  uint32_t room = 0;
  EXPECT_EQ(pol_xml_config_get_str(POL_XML_VPN_LIST, "v", &buffer, &room), POL_ENOMEM);
}

TEST_F(CallsTest, AnObjectThatIsGoneStoresNothing) {
  scripted::state()->stream = saved("x");
  EXPECT_TRUE(fetch());
  EXPECT_EQ(current(pol::MEM_CONFIG_XML), 0U);
  EXPECT_EQ(pol::xml_fetch_time(POL_XML_VPN_LIST, "v").end, 0);
  for (uint32_t type : {0U, 11U, 0xffffffffU}) {
    EXPECT_TRUE(fetch(type)) << "and one of no type is dropped";
    EXPECT_EQ(scripted::state()->open, 0);
  }
  pol_debug_set(1);
  seams::take_log();
  EXPECT_TRUE(fetch(POL_XML_VPN_LIST, std::string(127, '"').c_str())) << "nor one of no path";
  EXPECT_EQ(scripted::calls("maapi_save_config"), 1);
  EXPECT_NE(seams::take_log().find("Failed to get config from yarrowyarrow_str"),
            std::string::npos);
}

// Its lock's failures are answered, and told to who debugs; one that cannot be made is always told.
TEST_F(CallsTest, TheCacheDoesWithoutItsLock) {
  char* buffer = nullptr;
  uint32_t room = 0;
  auto text = [&] { return pol_xml_config_get_str(POL_XML_VPN_LIST, "v", &buffer, &room); };
  auto made = [] { return pol_xml_config_find_or_create(POL_XML_VPN_LIST, "v"); };
  auto records = [this] { return current(pol::MEM_POLICY_CONFIG); };
  const std::string locking = "Lock error on xml config tree (error:35)\n";
  const std::string unlocking = "Unlock error on xml config tree (error:1)\n";
  const struct {
    const char* failing;
    std::string line;
    std::function<bool()> call;
  } rows[] = {
      {"pthread_spin_init", "Failed to init spinlock for XML config (error 11)\n",
       [&] { return pol_xml_config_init(ctx) == POL_ESPINLOCK; }},
      {"none", "", [&] { return pol_xml_config_init(ctx) == POL_OK; }},
      {"pthread_spin_lock", locking, [&] { return made() == nullptr; }},
      {"pthread_spin_unlock", unlocking, [&] { return made() != nullptr; }},
      {"pthread_spin_lock", locking, [&] { return text() == POL_ELOCK; }},
      {"pthread_spin_unlock", unlocking, [&] { return text() == EPERM; }},
      {"pthread_spin_lock", locking,
       [&] { return pol_xml_config_find_and_delete(POL_XML_VPN_LIST, "v"), records() == 1; }},
      {"pthread_spin_lock", locking,
       [&] { return pol_xml_config_deinit(ctx) == 0 && records() == 1; }},
      {"pthread_spin_destroy", "Failed to destroy spinlock for XML config (error 16)\n",
       [&] { return pol_xml_config_deinit(ctx) == EBUSY && records() == 0; }},
  };
  for (uint32_t level : {1U, 0U}) {
    pol_debug_set(level);
    for (const auto& row : rows) {
      seams::take_log();
      scripted::fail_call(row.failing, 0, 1);
      EXPECT_TRUE(row.call()) << row.failing << row.line;
      const std::string log = seams::take_log();
      const bool told = level > 0 || strcmp(row.failing, "pthread_spin_init") == 0;
      EXPECT_EQ(log.empty() ? "" : log.substr(log.find("[POL] ") + 6), told ? row.line : "");
    }
  }
  EXPECT_EQ(pol_xml_config_init(ctx), POL_OK);
}

// As a device's own client answers: whole paths only.
TEST_F(CallsTest, TheFilterAsksForEachWholePathOnce) {
  const std::string p = "/zenodra-policy:";
  scripted::state()->schema = {p + "policy", p + "policy" + p + "policer",
                               p + "policy" + p + "policer" + p + "name"};
  const std::string entry = "<policer><name>a</name><new/></policer>";
  const std::string text =
      "<policy xmlns=\"urn:zenodra:policy\">" + entry + entry + "<new><name/></new></policy>";
  uint32_t length = 0;
  char* pruned = pol_xml_fetch_compat_config("urn:zenodra:policy", text.data(),
                                             static_cast<uint32_t>(text.size()), &length);
  ASSERT_NE(pruned, nullptr);
  EXPECT_EQ(std::string(pruned).find("new"), std::string::npos);
  free(pruned);
  std::string asked;
  for (const char* path :
       {"policy", "policy/policer", "policy/policer/name", "policy/policer/new", "policy/new"}) {
    asked += p + std::regex_replace(path, std::regex("/"), p) + "\n";
  }
  EXPECT_EQ(scripted::state()->paths, asked);
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
