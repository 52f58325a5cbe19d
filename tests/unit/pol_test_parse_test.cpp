// SPDX-License-Identifier: Apache-2.0
// The driver and the lines of lists.
#include "pol_test_fixture.h"
#include "support/seams.h"

namespace {

using TextParseTest = TextPolicyTest;

TEST_F(TextParseTest, AFileWithoutLinesStillNotifies) {
  Calls calls;
  t_pol_user* user = add_user("watcher", "p", &calls);
  parse("");
  EXPECT_EQ(calls.count, 0);
  pol_user_chg_list_add(ctx, user);
  parse("");
  EXPECT_EQ(calls.count, 1);
  pol_user_chg_list_add(ctx, user);
  EXPECT_EQ(pol_test_parse_file("/nonexistent/policy.txt", nullptr), -1);
  EXPECT_EQ(pol_test_parse_file(nullptr, nullptr), -1);
  EXPECT_EQ(calls.count, 1);
}

TEST_F(TextParseTest, ManyChangesAreToldOnce) {
  Calls calls;
  add_user("watcher", "p", &calls);
  parse(
      "route-policy p sequence 1 match route tag 5 action accept\n"
      "route-policy p sequence 2 match route tag 6 action accept\n");
  EXPECT_EQ(calls.count, 1);
}

TEST_F(TextParseTest, WithoutAContextNothingHappens) {
  pol_destroy();
  parse(
      "route-policy p sequence 1 match route tag 5\nsite-list s 1\ntloc-list t 1.1.1.1:1\n"
      "prefix-list p 1.0.0.0/8\n");
  t_pol_test_tokens tokens = {"vpn-list", "v", "10"};
  pol_test_parse_vpn_list(tokens);
}

TEST_F(TextParseTest, LinesOfOtherKindsAreIgnored) {
  parse("# site-list a 1\n#site-list b 1\n\n   \nvpn-list c 10\nsite-lists d 1\n site-list e 1\n");
  EXPECT_EQ(pol_vpn_list_first(ctx), nullptr);
  ASSERT_NE(ctx->site_lists.first(), nullptr);
  EXPECT_STREQ(ctx->site_lists.first()->head.name, "e");
  EXPECT_EQ(ctx->site_lists.next(ctx->site_lists.first()), nullptr);
}

TEST_F(TextParseTest, ALongLineIsTwoCommands) {
  // The first piece is 79 characters and ends in the middle of the padding word.
  std::string first = "site-list a 1 delete";
  std::string pad(79 - first.size() - 1, 'x');
  parse("site-list a 1\nsite-list a 2\n" + first + " " + pad + "site-list b 7\n");
  EXPECT_EQ(pol_site_list_find_entry(ctx, "a", 1, 1), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "a", 2, 2), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "b", 7, 7), nullptr);
}

TEST_F(TextParseTest, ALastLineWithoutNewlineLosesItsLastCharacter) {
  parse("site-list s1 5");
  EXPECT_EQ(pol_site_list_find_entry(ctx, "s1", 5, 5), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", 0, 0), nullptr);
}

std::string g_site_policy;

TEST_F(TextParseTest, SitePoliciesAreTheHosts) {
  const char* file = "site-policy a b\nsite-list s 1\nsite-policy c\n";
  parse(file);
  g_site_policy.clear();
  parse(file, [](t_pol_test_tokens tokens, uint32_t count) {
    g_site_policy += std::string(tokens[1]) + std::to_string(count) + " ";
  });
  EXPECT_EQ(g_site_policy, "a3 c2 ");
}

TEST_F(TextParseTest, SiteListLinesAddAndDelete) {
  parse("site-list s1 7\nsite-list s1 4294967295\nsite-list s1 -1\n");
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", 7, 7), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", UINT32_MAX, UINT32_MAX), nullptr);
  EXPECT_EQ(made(pol::MEM_SITE_ENTRY), 2u);
  parse("site-list s1 7 deleted\n");
  EXPECT_EQ(pol_site_list_find_entry(ctx, "s1", 7, 7), nullptr);
  ASSERT_NE(site_list("s1"), nullptr);
  parse("site-list s1 delete 9\n");
  EXPECT_EQ(site_list("s1"), nullptr);
  parse("site-list\nsite-list s2\n");
  EXPECT_NE(pol_site_list_find_entry(ctx, "", 0, 0), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "s2", 0, 0), nullptr);
}

TEST_F(TextParseTest, TlocListLinesAddAndDelete) {
  parse("tloc-list t1 10.1.1.1:3\ntloc-list t1 10.1.1.1:4\n");
  t_tloc_id tloc = {};
  pol_test_tloc_str_to_tloc("10.1.1.1:3", &tloc);
  t_tloc_entry* entry = pol_tloc_list_find_entry(ctx, "t1", &tloc);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->preference, 0u);
  pol_tloc_list_add_entry(ctx, "t1", &tloc, 50);
  parse("tloc-list t1 10.1.1.1:3\n");
  EXPECT_EQ(entry->preference, 0u);
  parse("tloc-list t1 10.1.1.1:3 delete\n");
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t1", &tloc), nullptr);
  EXPECT_EQ(made(pol::MEM_TLOC_ENTRY), 1u);
  parse("tloc-list t1 delete\n");
  EXPECT_EQ(pol_tloc_list_find(ctx, "t1"), nullptr);
}

TEST_F(TextParseTest, PrefixListLinesAddWithoutOperator) {
  parse("prefix-list p1 10.0.0.0/8\nprefix-list p1 11.0.0.0/8\nprefix-list p1 11.0.0.0/8 delete\n");
  t_pfx_list* list = pfx_list("p1");
  ASSERT_NE(list, nullptr);
  const t_pfx_entry* entry = list->entries.front();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->op, 0u);
  EXPECT_EQ(entry->addr.family, KEL_AF_INET);
  EXPECT_EQ(entry->addr.addr.v4, 0x0a000000u);
  EXPECT_EQ(entry->len, 8);
  EXPECT_EQ(entry->min + entry->max, 0);
  EXPECT_EQ(list->entries.next(entry), nullptr);
  parse("prefix-list p1 delete\n");
  EXPECT_EQ(pfx_list("p1"), nullptr);
}

TEST_F(TextParseTest, VpnListLinesWorkForAHostThatCallsThem) {
  t_pol_test_tokens add = {"vpn-list", "v1", "10"};
  pol_test_parse_vpn_list(add);
  EXPECT_NE(pol_vpn_list_find_entry(ctx, "v1", 10, 10), nullptr);
  t_pol_test_tokens remove = {"vpn-list", "v1", "10", "delete"};
  pol_test_parse_vpn_list(remove);
  EXPECT_EQ(pol_vpn_list_find_entry(ctx, "v1", 10, 10), nullptr);
  t_pol_test_tokens drop = {"vpn-list", "v1", "delete"};
  pol_test_parse_vpn_list(drop);
  EXPECT_EQ(vpn_list("v1"), nullptr);
}

TEST_F(TextParseTest, TheFilesOwnLinesAreLoggedAlwaysTheListsFromLevelFourOn) {
  TextFile file("site-list s1 7\nsite-list s1 delete\n");
  seams::take_log();
  pol_test_parse_file(file.path(), nullptr);
  std::string log;
  for (const std::string& line : seams::take_log()) log += line;
  EXPECT_NE(log.find("]: Parsing policy file " + std::string(file.path()) + "\n"), log.npos) << log;
  EXPECT_NE(log.find("]: 0 site-list s1 7\n\n"), log.npos) << log;
  EXPECT_NE(log.find("]: i: 2,   delete - 6\n"), log.npos) << log;
  EXPECT_EQ(log.find("[POL]"), log.npos) << log;
  pol_debug_set(4);
  pol_test_parse_file(file.path(), nullptr);
  pol_test_parse_file("/nonexistent", nullptr);
  t_pol_test_tokens tokens = {"tloc-list", "t", "10.0.0.1:3"};
  pol_test_parse_tloc_list(tokens, 3);
  log.clear();
  for (const std::string& line : seams::take_log()) log += line;
  for (const char* text :
       {"]: [POL] Adding prefix list s1 site: 7\n", "]: [POL] Deleting prefix list s1\n",
        "]: [POL] Adding tloc list t entry: ", "]: [POL] Failed to open file @/nonexistent\n"}) {
    EXPECT_NE(log.find(text), log.npos) << text << log;
  }
}

TEST_F(TextParseTest, SlotsWithoutNulAreCut) {
  t_pol_test_tokens tokens;
  memset(tokens, 'x', sizeof tokens);
  pol_test_parse_site_list(tokens, UINT32_MAX);
  ASSERT_NE(ctx->site_lists.first(), nullptr);
  EXPECT_EQ(ctx->site_lists.first()->head.name, std::string(49, 'x'));
}

}  // namespace
