// SPDX-License-Identifier: Apache-2.0
// The driver, its words and the lines of lists.
#include <cstring>
#include <regex>

#include "pol_test_fixture.h"
#include "support/golden.h"
#include "support/seams.h"

namespace {

class TextParseTest : public TextPolicyTest {
 protected:
  // What is logged of a file and the lists that it leaves, without what differs from run to run.
  std::string outcome(const std::string& content) const {
    pol_debug_set(1);
    seams::take_log();
    parse(content);
    std::string text = seams::take_log() + printed([](t_cli_user_ctx* cli) {
                         for (auto dump : {pol_dump_site_list_all, pol_dump_tloc_list_all,
                                           pol_dump_pfx_list_all}) {
                           dump(cli, 0, 0, nullptr);
                         }
                       });
    for (const char* varies : {"191 \\w+\\[\\d+\\]: ", " \\S*\\(0x[^)]+\\)",
                               "Parsing policy file .*\n", "\n +=+", "\n +[A-Z ]+(?=\n)"}) {
      text = std::regex_replace(text, std::regex(varies), "");
    }
    return text + "\n";
  }
};

// Each part is a file: the words of its lines as they are logged, and its lists.
TEST_F(TextParseTest, FilesMatchTheirGolden) {
  std::string all;
  for_each_part("text/files.in", [&](const std::string& file) {
    pol_destroy();
    init();
    all += outcome(file) + "\n";
  });
  expect_golden("text/files.ok", all);
}

TEST_F(TextParseTest, ALastLineWithoutNewlineLosesItsLastCharacter) {
  parse("site-list s1 5");
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", 0, 0), nullptr);
  t_pol_test_tokens tokens = {};
  uint32_t kind = 0;
  EXPECT_EQ(pol_test_get_tokens("   ", tokens, &kind), 0u);
  EXPECT_EQ(pol_test_get_tokens("ends with blanks   ", tokens, &kind), 3u);
  EXPECT_STREQ(tokens[2], "blank");
}

TEST_F(TextParseTest, AFileNotifiesOnceAtItsEndEvenWithoutLines) {
  Calls calls;
  t_pol_user* user = add_user("watcher", "p", &calls);
  parse("");
  EXPECT_EQ(calls.count, 0);
  pol_user_chg_list_add(ctx, user);
  parse("");
  EXPECT_EQ(calls.count, 1);
  parse("route-policy p sequence 1 match route tag 5\nroute-policy p sequence 2 match route\n");
  EXPECT_EQ(calls.count, 2);
  pol_user_chg_list_add(ctx, user);
  EXPECT_EQ(pol_test_parse_file("/nonexistent/policy.txt", nullptr), -1);
  EXPECT_EQ(pol_test_parse_file(nullptr, nullptr), -1);
  EXPECT_EQ(calls.count, 2);
}

TEST_F(TextParseTest, WithoutAContextNothingHappens) {
  pol_destroy();
  parse(
      "route-policy p sequence 1 match route tag 5\nsite-list s 1\ntloc-list t 1.1.1.1:1\n"
      "prefix-list p 1.0.0.0/8\n");
  init();
}

TEST_F(TextParseTest, SitePoliciesAreTheHosts) {
  static std::string told;
  parse("site-policy a b\nsite-list s 1\n");
  parse("site-policy a b\nsite-list s 1\nsite-policy c\n",
        [](t_pol_test_tokens tokens, uint32_t count) {
          told += std::string(tokens[1]) + std::to_string(count) + " ";
        });
  EXPECT_EQ(told, "a3 c2 ");
}

TEST_F(TextParseTest, AnAddedTlocForgetsItsPreferenceAndVpnListsAreForHostsThatAsk) {
  t_tloc_id tloc = tloc4(0x0a010101, 3, 0);
  pol_tloc_list_add_entry(ctx, "t1", &tloc, 50);
  parse("tloc-list t1 10.1.1.1:3\n");
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t1", &tloc)->preference, 0u);
  t_pol_test_tokens vpns[] = {
      {"vpn-list", "v1", "10"}, {"vpn-list", "v1", "11"}, {"vpn-list", "v1", "11", "delete"}};
  for (auto& tokens : vpns) pol_test_parse_vpn_list(tokens);
  EXPECT_NE(pol_vpn_list_find_entry(ctx, "v1", 10, 10), nullptr);
  EXPECT_EQ(current(pol::MEM_VPN_ENTRY), 1u);
  t_pol_test_tokens drop = {"vpn-list", "v1", "delete"};
  pol_test_parse_vpn_list(drop);
  EXPECT_EQ(lists(), "t1 ");
}

TEST_F(TextParseTest, AtLevelZeroOnlyWordsAreLogged) {
  seams::take_log();
  parse("site-list s1\n");
  pol_test_parse_file("/nonexistent", nullptr);
  EXPECT_EQ(std::regex_replace(seams::take_log(), std::regex("\\[\\d+\\]"), ""),
            "191 pol_test_get_tokens: i: 0,   site-list - 9\n"
            "191 pol_test_get_tokens: i: 1,   s1 - 2\n");
}

TEST_F(TextParseTest, ListsAreLoggedFromLevelFourOn) {
  for (bool logged : {false, true}) {
    pol_debug_set(logged ? 4 : 3);
    seams::take_log();
    parse("site-list s1 7\nsite-list s1 delete\n");
    pol_test_parse_file("/nonexistent", nullptr);
    const std::string log = seams::take_log();
    EXPECT_EQ(log.find("]: [POL] Adding prefix list s1 site: 7\n") != log.npos, logged);
    EXPECT_EQ(log.find("]: [POL] Deleting prefix list s1\n") != log.npos, logged);
    EXPECT_NE(log.find("191 pol_test_parse_file["), log.npos) << log;
    EXPECT_NE(log.find("]: [POL] Failed to open file @/nonexistent\n"), log.npos) << log;
  }
}

TEST_F(TextParseTest, SlotsWithoutNulAreCut) {
  t_pol_test_tokens tokens;
  memset(tokens, 'x', sizeof tokens);
  pol_test_parse_site_list(tokens, UINT32_MAX);
  EXPECT_EQ(lists(), std::string(49, 'x') + " ");
}

}  // namespace
