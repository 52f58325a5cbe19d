// SPDX-License-Identifier: Apache-2.0
// The driver, its words and the lines of lists.
#include <cstring>

#include "pol_test_fixture.h"
#include "support/seams.h"

namespace {

using Strings = std::vector<std::string>;

Strings words(const std::string& line, uint32_t* kind = nullptr) {
  t_pol_test_tokens tokens = {};
  uint32_t ignored = 0;
  uint32_t count = pol_test_get_tokens(line.c_str(), tokens, kind != nullptr ? kind : &ignored);
  return Strings(tokens, tokens + count);
}

TEST(TextTokens, SplitAtBlanksAndLoseTheLastCharacter) {
  const std::string full(49, 'x');
  std::string twenty;
  for (int i = 0; i < 20; ++i) twenty += "w" + std::to_string(i) + " ";
  const std::pair<std::string, Strings> cases[] = {
      {"  a   b \n", {"a", "b", ""}},
      {"a\tb c\n", {"a\tb", "c"}},
      {"site-list s1 5", {"site-list", "s1", ""}},
      {"ends with blanks   ", {"ends", "with", "blank"}},
      {"\n", {""}},
      {"", {}},
      {"   ", {}},
      {full + "\n", {full}},
      {full + "yyyy b\n", {full, "b"}},
      {twenty + "w20 w21\n", words(twenty + "\n")},  // the rest is dropped with the newline
  };
  for (const auto& [line, expected] : cases) EXPECT_EQ(words(line), expected) << line;
  EXPECT_EQ(words(twenty + "\n").back(), "w19");
}

TEST(TextTokens, TheFirstWordMustEqualTheKeyword) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"site-list s\n", POL_TEST_SITE_LIST},
      {"site-lists s\n", POL_TEST_OTHER},
      {"site-lis s\n", POL_TEST_OTHER},
      {"# site-list s\n", POL_TEST_OTHER},
      {"vpn-list v 10\n", POL_TEST_OTHER},  // files never fill VPN lists
      {"", POL_TEST_OTHER},
  };
  for (const auto& [line, expected] : cases) {
    uint32_t kind = 99;
    words(line, &kind);
    EXPECT_EQ(kind, expected) << line;
  }
}

TEST(TextTokens, PrefixesAndTlocsTakeWhatIsThere) {
  const std::tuple<const char*, uint32_t, int> prefixes[] = {
      {"10.1.2.3/24", 0x0a010203, 24},
      {"10.1.2.3", 0x0a010203, 0},
      {"10.1/16", 0x0a010000, 0},
      {"x", 0, 0},
      {"1.2.3.4:5", 0x01020304, 0},
      {"256.0.0.1/8", 1, 8},
      {"0.0.1.256/300", 0x200, 44},
      {"-1.0.0.0/8", 0xff000000, 8},
      {"99999999999999999999.0.0.1/8", 0xff000001, 8},
  };
  for (const auto& [text, address, length] : prefixes) {
    t_ipprefix prefix = {};
    pol_test_pfx_str_to_pfx(text, &prefix);
    EXPECT_EQ(prefix.addr.family, KEL_AF_INET);
    EXPECT_EQ(prefix.addr.addr.v4, address) << text;
    EXPECT_EQ(prefix.len, length) << text;
  }
}

using TextParseTest = TextPolicyTest;

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

TEST_F(TextParseTest, LinesOfOtherKindsAreIgnored) {
  parse("# site-list a 1\n#site-list b 1\n\n   \nvpn-list c 10\nsite-lists d 1\n site-list e 1\n");
  EXPECT_EQ(lists(), "e ");
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

TEST_F(TextParseTest, SitePoliciesAreTheHosts) {
  static std::string told;
  parse("site-policy a b\nsite-list s 1\n");
  parse("site-policy a b\nsite-list s 1\nsite-policy c\n",
        [](t_pol_test_tokens tokens, uint32_t count) {
          told += std::string(tokens[1]) + std::to_string(count) + " ";
        });
  EXPECT_EQ(told, "a3 c2 ");
}

TEST_F(TextParseTest, ListLinesAddAndDelete) {
  parse("site-list s1 7\nsite-list s1 4294967295\nsite-list s1 -1\n");
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", 7, 7), nullptr);
  EXPECT_NE(pol_site_list_find_entry(ctx, "s1", UINT32_MAX, UINT32_MAX), nullptr);
  EXPECT_EQ(current(pol::MEM_SITE_ENTRY), 2u);
  parse("site-list s1 7 deleted\n");
  EXPECT_EQ(pol_site_list_find_entry(ctx, "s1", 7, 7), nullptr);
  EXPECT_EQ(lists(), "s1 ");
  parse("site-list s1 delete 9\nsite-list\nsite-list s2\n");
  EXPECT_NE(pol_site_list_find_entry(ctx, "", 0, 0), nullptr);
  EXPECT_EQ(lists(), " s2 ");

  parse("tloc-list t1 10.1.1.1:3\ntloc-list t1 10.1.1.1:4\ntloc-list t1 10.1.1.1:4 delete\n");
  t_tloc_id tloc = tloc4(0x0a010101, 3, 0);
  t_tloc_entry* entry = pol_tloc_list_find_entry(ctx, "t1", &tloc);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(current(pol::MEM_TLOC_ENTRY), 1u);
  entry->preference = 50;
  parse("tloc-list t1 10.1.1.1:3\n");
  EXPECT_EQ(entry->preference, 0u);

  parse("prefix-list p1 10.0.0.0/8\nprefix-list p1 11.0.0.0/8\nprefix-list p1 11.0.0.0/8 delete\n");
  EXPECT_EQ(current(pol::MEM_PFX_ENTRY), 1u);
  const t_pfx_entry* kept = ctx->pfx_lists.first()->entries.front();
  EXPECT_EQ(kept->addr.addr.v4, 0x0a000000u);
  EXPECT_EQ(kept->len, 8);
  EXPECT_EQ(kept->op, 0u) << "without an operator, which compares like EQ";

  t_pol_test_tokens vpns[] = {
      {"vpn-list", "v1", "10"}, {"vpn-list", "v1", "11"}, {"vpn-list", "v1", "11", "delete"}};
  for (auto& tokens : vpns) pol_test_parse_vpn_list(tokens);
  EXPECT_NE(pol_vpn_list_find_entry(ctx, "v1", 10, 10), nullptr);
  EXPECT_EQ(current(pol::MEM_VPN_ENTRY), 1u);
  t_pol_test_tokens drop = {"vpn-list", "v1", "delete"};
  pol_test_parse_vpn_list(drop);
  parse("tloc-list t1 delete\nprefix-list p1 delete\n");
  EXPECT_EQ(lists(), " s2 ");
}

TEST_F(TextParseTest, TheFilesOwnLinesAreLoggedAlwaysTheListsFromLevelFourOn) {
  TextFile file("site-list s1 7\nsite-list s1 delete\n");
  seams::take_log();
  pol_test_parse_file(file.path(), nullptr);
  std::string log = seams::take_log();
  for (const std::string& text :
       {"]: Parsing policy file " + std::string(file.path()) + "\n",
        std::string("]: 0 site-list s1 7\n\n"), std::string("]: i: 2,   delete - 6\n")}) {
    EXPECT_NE(log.find(text), log.npos) << text << log;
  }
  EXPECT_EQ(log.find("[POL]"), log.npos) << log;
  pol_debug_set(4);
  pol_test_parse_file(file.path(), nullptr);
  pol_test_parse_file("/nonexistent", nullptr);
  log = seams::take_log();
  for (const char* text :
       {"]: [POL] Adding prefix list s1 site: 7\n", "]: [POL] Deleting prefix list s1\n",
        "]: [POL] Failed to open file @/nonexistent\n"}) {
    EXPECT_NE(log.find(text), log.npos) << text << log;
  }
}

TEST_F(TextParseTest, SlotsWithoutNulAreCut) {
  t_pol_test_tokens tokens;
  memset(tokens, 'x', sizeof tokens);
  pol_test_parse_site_list(tokens, UINT32_MAX);
  EXPECT_EQ(lists(), std::string(49, 'x') + " ");
}

}  // namespace
