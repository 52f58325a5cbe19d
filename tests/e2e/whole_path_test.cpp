// SPDX-License-Identifier: Apache-2.0
//
// However a configuration came to be, the library holds the same.
#include <chrono>
#include <cstdlib>
#include <sstream>

#include "agent/schema_tree.h"
#include "edit_model.h"
#include "host/setlines/config_lines.h"
#include "host/setlines/set_document.h"
#include "kel/string.h"
#include "policy/pol_user.h"
#include "rig.h"
#include "tests/support/golden.h"

namespace {

using test::policy;
using test::Rig;
using test::why;

// Each part of the golden is a configuration, a commit a line, and the edits of one more commit.
TEST(WholePath, EachTrapLeavesWhatTheFinalConfigurationMakes) {
  for_each_part("e2e/traps.in", [](const std::string& part) {
    SCOPED_TRACE(part);
    Rig rig;
    std::istringstream lines(part);
    std::string line;
    std::getline(lines, line);  // its title
    while (std::getline(lines, line) && line != "then") rig.commit_and_follow(line);
    const int sock = rig.session().fd();
    const int trans = rig.session().begin();
    while (std::getline(lines, line)) {
      std::string act, path, text;
      std::istringstream(line) >> act >> path >> text;
      int status = act == "delete" ? maapi_delete(sock, trans, "%s", path.c_str())
                   : act == "create"
                       ? maapi_create(sock, trans, "%s", path.c_str())
                       : maapi_set_elem_text(sock, trans, text.c_str(), "%s", path.c_str());
      ASSERT_EQ(why(status), "ok") << line;
    }
    ASSERT_EQ(why(maapi_apply_trans(sock, trans, 0)), "ok");
    ASSERT_TRUE(rig.commit()) << why(YARROW_ERR);
    rig.follow();
    const auto [followed, fresh] = rig.states();
    EXPECT_EQ(followed, fresh);
  });
}

// Random edits in random commits. E2E_SEED repeats a run, E2E_ROUNDS makes it longer.
TEST(WholePath, RandomHistoriesLeaveWhatTheFinalConfigurationMakes) {
  const char* seed_text = getenv("E2E_SEED");
  const char* rounds_text = getenv("E2E_ROUNDS");
  auto seed = static_cast<uint32_t>(seed_text != nullptr ? strtoul(seed_text, nullptr, 10)
                                                         : std::random_device{}());
  unsigned long rounds = rounds_text != nullptr ? strtoul(rounds_text, nullptr, 10) : 120;
  SCOPED_TRACE("E2E_SEED=" + std::to_string(seed));
  Rig rig;
  test::Editor editor(rig.session().fd(), seed);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  uint64_t commits = 0;
  uint64_t accepted = 0;
  for (unsigned long round = 0; round < rounds; ++round) {
    if (rounds_text == nullptr && std::chrono::steady_clock::now() > end) break;
    for (uint32_t i = 0; i < 1 + editor.below(6); ++i) {
      editor.edit(1 + editor.below(8));
      ++commits;
      accepted += rig.commit() ? 1 : 0;
    }
    rig.follow();
    const auto [followed, fresh] = rig.states();
    ASSERT_EQ(followed, fresh) << "round " << round;
  }
  EXPECT_GT(accepted * 2, commits) << "too many edits are refused to mean much";
  ASSERT_EQ(why(rig.session().commit(policy(""), test::kReplace)), "ok");
  rig.follow();
  const auto [followed, fresh] = rig.states();
  EXPECT_EQ(followed, fresh) << "nothing is left";
}

// What an agent holds, written in words or as JSON and loaded again, is what it holds.
TEST(WholePath, RandomConfigurationsAreTheSameInWordsAndAsJson) {
  uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  test::AgentProcess agent;
  test::Session session(agent.port());
  ASSERT_EQ(why(yarrow_load_schemas(session.addr(), session.addr_len())), "ok");
  test::Editor editor(session.fd(), seed);
  size_t lines = 0;
  for (int round = 0; round < 40; ++round) {
    editor.edit(1 + editor.below(30));
    if (maapi_candidate_commit(session.fd()) != YARROW_OK) continue;
    const std::string xml = session.save("/policy");
    if (xml.empty()) continue;
    std::string words;
    for (const std::string& line : polctl::set_lines(polctl::config_lines(xml))) {
      words += line + "\n";
      ++lines;
    }
    polctl::SetDocument read = polctl::read_set_lines(words);
    ASSERT_TRUE(read.faults.empty()) << words << read.faults[0].what;
    std::string error, json, back;
    ASSERT_TRUE(agent::json_from_xml(xml, &json, &error) &&
                agent::xml_from_json(json, &back, &error))
        << error;
    const int64_t before = maapi_commit_id(session.fd());
    for (const std::string& text : {read.xml, back}) {
      ASSERT_EQ(why(session.commit(text, test::kReplace)), "ok") << words;
      ASSERT_EQ(maapi_commit_id(session.fd()), before) << words << json;
    }
  }
  EXPECT_GT(lines, 500u);
}

void count_call(t_pol_user* /*user*/, uint64_t count) { ++*reinterpret_cast<int*>(count); }

TEST(WholePath, OneEditInAListOfAHundredThousandTellsEachUserOnce) {
  constexpr int kMembers = 100'000;
  Rig rig;
  std::string list = "<lists><prefix-list><name>big</name>";
  for (int i = 0; i < kMembers; ++i) {
    list += "<prefix><prefix>" + std::to_string(10 + (i >> 16)) + "." +
            std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255) +
            ".0/24</prefix></prefix>";
  }
  list += "</prefix-list></lists>";
  auto names_list = [](const std::string& name, const std::string& prefix_list) {
    return "<control-policy><name>" + name +
           "</name><sequence><number>10</number><match><type>route</type><prefix-list>" +
           prefix_list + "</prefix-list></match></sequence></control-policy>";
  };
  rig.commit_and_follow(
      policy(list + names_list("P1", "big") + names_list("P2", "big") + names_list("P3", "other")));
  int calls[3] = {};
  t_pol_user* users[3] = {};
  for (int i = 0; i < 3; ++i) {
    t_pol_registration record = {};
    std::string name = "P" + std::to_string(i + 1);
    strlcpy(record.user_name, name.c_str(), sizeof record.user_name);
    strlcpy(record.policy_name, name.c_str(), sizeof record.policy_name);
    record.kind = POL_KIND_ROUTE;
    record.direction = POL_DIR_IN;
    record.change = count_call;
    record.user_arg = reinterpret_cast<uint64_t>(&calls[i]);
    users[i] = pol_register(&record);
  }
  ASSERT_EQ(why(rig.session().commit_edits(
                {{"/policy/lists/prefix-list{big}/prefix{10.1.2.0/24}/le", "32"}})),
            "ok");
  rig.follow();
  EXPECT_EQ(calls[0], 1);
  EXPECT_EQ(calls[1], 1);
  EXPECT_EQ(calls[2], 0) << "its policy names another list";
  for (t_pol_user*& user : users) pol_unregister(&user);
}

}  // namespace
