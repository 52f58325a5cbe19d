// SPDX-License-Identifier: Apache-2.0
#include "pol_test_fixture.h"
#include "support/seams.h"

namespace {

class TextRoutePolicyTest : public TextPolicyTest {
 protected:
  // Carries a line out; true when it queued the watcher of policy p.
  bool line(const std::string& text) {
    t_pol_test_tokens tokens = {};
    uint32_t kind = 0;
    uint32_t count = pol_test_get_tokens((text + "\n").c_str(), tokens, &kind);
    pol_test_parse_route_policy(tokens, count);
    int before = calls_.count;
    pol_user_chg_list_notify_all(ctx);
    return calls_.count > before;
  }
  // The same on sequence 1 of policy p.
  bool clause(const std::string& text) { return line("route-policy p sequence 1 " + text); }
  bool match(const std::string& text) { return clause("match route " + text); }

  void SetUp() override {
    TextPolicyTest::SetUp();
    add_user("watcher", "p", &calls_);
    line("route-policy p sequence 1 match route");
    entry_ = sequence("p", 1);
    ASSERT_NE(entry_, nullptr);
  }

  Calls calls_;
  t_pol_entry* entry_ = nullptr;
};

TEST_F(TextRoutePolicyTest, ALineMakesPolicySequenceClauseListAndAction) {
  EXPECT_TRUE(line("route-policy p sequence 10 match route site-list s1 action accept"));
  t_pol_entry* entry = sequence("p", 10);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->match.type, POL_MATCH_ROUTE);
  EXPECT_EQ(entry->match_flags, POL_MATCH_F_SITE_LIST);
  EXPECT_EQ(entry->action, POL_ACCEPT);
  ASSERT_NE(site_list("s1"), nullptr);
  EXPECT_EQ(pol::list_of<t_site_list>(entry->match.site_list), site_list("s1"));
  EXPECT_TRUE(site_list("s1")->entries.empty());
}

TEST_F(TextRoutePolicyTest, ALineReadTwiceChangesNothing) {
  const char* again = "tag 5 set tag 7 set tloc 10.0.0.1 3 action accept";
  EXPECT_TRUE(match(again));
  EXPECT_FALSE(match(again));
  EXPECT_TRUE(line("route-policy p sequence 4294967295 match tloc"));
  EXPECT_FALSE(line("route-policy p sequence -1 match tloc"));
  EXPECT_EQ(made(pol::MEM_ENTRY), 2u);
}

TEST_F(TextRoutePolicyTest, ScalarClausesAreStoredAndDeleted) {
  struct Case {
    const char* clause;
    uint32_t flag;
    uint64_t (*value)(const t_pol_match&);
    uint64_t expected;
  };
  const Case cases[] = {
      {"tag 5x", POL_MATCH_F_TAG, [](const t_pol_match& m) { return uint64_t{m.tag}; }, 5},
      {"preference 100", POL_MATCH_F_PREF,
       [](const t_pol_match& m) { return uint64_t{m.preference}; }, 100},
      {"domain 2", POL_MATCH_F_DOMAIN, [](const t_pol_match& m) { return uint64_t{m.domain}; }, 2},
      {"vpn-id 1099511627776", POL_MATCH_F_VPN_ID, [](const t_pol_match& m) { return m.vpn_id; },
       1099511627776},
      {"site 4294967296", POL_MATCH_F_SITE, [](const t_pol_match& m) { return uint64_t{m.site}; },
       0},
      {"source-port 65537", POL_MATCH_F_SRC_PORT,
       [](const t_pol_match& m) { return uint64_t{m.src_port}; }, 1},
      {"destination-ports 443", POL_MATCH_F_DST_PORT,
       [](const t_pol_match& m) { return uint64_t{m.dst_port}; }, 443},
      {"dscp af12", POL_MATCH_F_DSCP, [](const t_pol_match& m) { return uint64_t{m.dscp}; }, 2},
      {"dscp ef", POL_MATCH_F_DSCP, [](const t_pol_match& m) { return uint64_t{m.dscp}; }, 0},
      {"tloc 10.0.0.1 3", POL_MATCH_F_TLOC,
       [](const t_pol_match& m) {
         return uint64_t{m.tloc.addr.v4} << 16 | m.tloc.family << 8 | m.tloc.color;
       },
       uint64_t{0x0a000001} << 16 | KEL_AF_INET << 8 | 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.clause);
    EXPECT_TRUE(match(c.clause));
    EXPECT_EQ(entry_->match_flags, c.flag);
    EXPECT_EQ(c.value(entry_->match), c.expected);
    EXPECT_FALSE(match(c.clause));
    EXPECT_TRUE(match(std::string(c.clause) + " delete"));
    EXPECT_EQ(entry_->match_flags, 0u);
    EXPECT_FALSE(match(std::string(c.clause) + " delete"));
  }
}

TEST_F(TextRoutePolicyTest, AProtocolLivesUnderTheFlagOfDscp) {
  for (const auto& [word, value] : {std::pair("icmp", 3u), {"udp", 1u}, {"tcp", 2u}, {"x", 0u}}) {
    EXPECT_TRUE(match("protocol " + std::string(word)));
    EXPECT_EQ(entry_->match.proto, value);
    EXPECT_EQ(entry_->match_flags, POL_MATCH_F_DSCP);
  }
  EXPECT_TRUE(match("protocol x"));
  EXPECT_FALSE(match("protocol x delete"));
  EXPECT_EQ(entry_->match_flags, POL_MATCH_F_DSCP);
  EXPECT_TRUE(match("dscp af11 delete"));
}

TEST_F(TextRoutePolicyTest, AddressesOfPacketsAreReadOver) {
  seams::take_log();
  EXPECT_TRUE(match("source-ip 10.0.0.1 match route destination-ip x delete action accept"));
  EXPECT_NE(seams::take_log().back().find("]: src-ip-add\n"), std::string::npos);
  match("source-ip x delete");
  EXPECT_NE(seams::take_log().back().find("]: src-ip\n"), std::string::npos);
  EXPECT_EQ(entry_->match_flags, 0u);
  EXPECT_EQ(entry_->action, POL_ACCEPT);
}

TEST_F(TextRoutePolicyTest, ListClausesMoveAndLeaveTellingNobody) {
  EXPECT_TRUE(match("site-list a"));
  EXPECT_TRUE(match("site-list b"));
  EXPECT_EQ(site_list("a"), nullptr);
  EXPECT_NE(site_list("b"), nullptr);
  EXPECT_TRUE(match("vpn-list v"));
  EXPECT_TRUE(match("tloc-list t"));
  EXPECT_TRUE(match("prefix-lists p"));
  EXPECT_EQ(entry_->match_flags, POL_MATCH_F_SITE_LIST | POL_MATCH_F_VPN_LIST |
                                     POL_MATCH_F_TLOC_LIST | POL_MATCH_F_PFX_LIST);
  for (const char* list : {"site-list", "vpn-list", "tloc-list", "prefix-list"}) {
    for (int twice = 0; twice < 2; ++twice) {
      EXPECT_FALSE(match(std::string(list) + " any delete")) << list;
    }
  }
  EXPECT_EQ(entry_->match_flags, 0u);
  EXPECT_EQ(site_list("b"), nullptr);
  EXPECT_EQ(pfx_list("p"), nullptr);
  EXPECT_EQ(pol_vpn_list_first(ctx), nullptr);
  EXPECT_EQ(pol_tloc_list_first(ctx), nullptr);
  EXPECT_TRUE(match("site-list b"));
}

TEST_F(TextRoutePolicyTest, AnotherMatchTypeDropsTheClauses) {
  match("site-list s match route tag 5");
  EXPECT_TRUE(clause("match tloc preference 7"));
  EXPECT_EQ(entry_->match.type, POL_MATCH_TLOC);
  EXPECT_EQ(entry_->match_flags, POL_MATCH_F_PREF);
  EXPECT_EQ(site_list("s"), nullptr);
  for (const auto& [word, type] :
       {std::pair("routes", POL_MATCH_ROUTE), std::pair("tlocs", POL_MATCH_TLOC),
        std::pair("services", POL_MATCH_SERVICE), std::pair("rout", POL_MATCH_PACKET)}) {
    clause("match " + std::string(word));
    EXPECT_EQ(entry_->match.type, static_cast<uint32_t>(type)) << word;
  }
}

TEST_F(TextRoutePolicyTest, MatchDeleteDropsAllAndTakesAClauseThen) {
  match("site-list s match route tag 5");
  EXPECT_TRUE(clause("match tloc delete preference 9"));
  EXPECT_EQ(entry_->match_flags, POL_MATCH_F_PREF);
  EXPECT_EQ(entry_->match.type, POL_MATCH_ROUTE);
  EXPECT_EQ(site_list("s"), nullptr);
}

TEST_F(TextRoutePolicyTest, SetClausesAreStoredAndDeleted) {
  EXPECT_TRUE(clause("set tag 1 set preference 2 set vpn-id 3 set vpn-list v set tloc 10.0.0.1 4"));
  const t_pol_set& set = entry_->set;
  EXPECT_EQ(entry_->set_flags, POL_SET_F_TAG | POL_SET_F_PREF | POL_SET_F_VPN_ID |
                                   POL_SET_F_VPN_LIST | POL_SET_F_TLOC);
  EXPECT_EQ(set.tag, 1u);
  EXPECT_EQ(set.preference, 2u);
  EXPECT_EQ(set.vpn_id, 3u);
  EXPECT_EQ(set.tloc.addr.v4, 0x0a000001u);
  EXPECT_EQ(set.tloc.color, 4);
  EXPECT_FALSE(clause("set vpn-list w delete"));
  EXPECT_EQ(vpn_list("v"), nullptr);
  EXPECT_TRUE(clause("set tloc 0.0.0.0 0 delete set tag 0 delete"));
  EXPECT_EQ(entry_->set_flags, POL_SET_F_PREF | POL_SET_F_VPN_ID);
  EXPECT_TRUE(clause("set vpn-list v set delete tag 8"));
  EXPECT_EQ(entry_->set_flags, POL_SET_F_TAG);
  EXPECT_EQ(vpn_list("v"), nullptr);
}

TEST_F(TextRoutePolicyTest, ActionsTakeTheirFirstLetters) {
  EXPECT_TRUE(clause("action accepted"));
  EXPECT_EQ(entry_->action, POL_ACCEPT);
  EXPECT_FALSE(clause("actions accept"));
  EXPECT_TRUE(clause("action acc"));
  EXPECT_EQ(entry_->action, POL_REJECT);
  clause("action accept");
  EXPECT_TRUE(clause("action accept delete"));
  EXPECT_FALSE(clause("action accept delete"));
  EXPECT_EQ(entry_->action, POL_REJECT);
}

TEST_F(TextRoutePolicyTest, DefaultActionClearsItsMatchPartOnly) {
  t_pol_entry* entry = &policy("p")->default_action;
  // The action alone tells nobody.
  EXPECT_FALSE(line("route-policy p default-action accept"));
  EXPECT_EQ(entry->action, POL_ACCEPT);
  EXPECT_TRUE(line("route-policy p default-action accept set tag 5 match route site-list s"));
  EXPECT_EQ(entry->match_flags, POL_MATCH_F_SITE_LIST);
  EXPECT_TRUE(line("route-policy p default-action reject"));
  EXPECT_EQ(entry->match_flags, 0u);
  EXPECT_EQ(entry->match.type, 0u);
  EXPECT_EQ(entry->set_flags, POL_SET_F_TAG);
  EXPECT_EQ(entry->action, POL_REJECT);
  EXPECT_EQ(site_list("s"), nullptr);
  EXPECT_TRUE(line("route-policy p default-action reject action accept"));
  EXPECT_EQ(entry->action, POL_ACCEPT);
}

TEST_F(TextRoutePolicyTest, DefaultActionDeleteClearsAllAndTellsOfAnAccept) {
  t_pol_entry* entry = &policy("p")->default_action;
  const std::string fill =
      "route-policy p default-action accept set tag 5 set vpn-list v match tloc tloc-list t";
  line(fill);
  EXPECT_FALSE(line("route-policy p default-action reject delete"));
  EXPECT_EQ(entry->action, POL_REJECT);
  EXPECT_EQ(entry->set_flags | entry->match_flags | entry->match.type, 0u);
  EXPECT_EQ(pol_vpn_list_first(ctx), nullptr);
  EXPECT_EQ(pol_tloc_list_first(ctx), nullptr);
  EXPECT_TRUE(line("route-policy p default-action accept delete"));
  EXPECT_TRUE(line(fill));
  EXPECT_NE(vpn_list("v"), nullptr);
}

TEST_F(TextRoutePolicyTest, DeletesOfPoliciesAndSequences) {
  line("route-policy p sequence 10 match route site-list s");
  EXPECT_TRUE(line("route-policy p sequence 10 delete"));
  EXPECT_EQ(sequence("p", 10), nullptr);
  EXPECT_EQ(site_list("s"), nullptr);
  EXPECT_FALSE(line("route-policy p sequence 10 delete"));
  EXPECT_TRUE(line("route-policy p delete"));
  EXPECT_EQ(policy("p"), nullptr);
  EXPECT_FALSE(line("route-policy q delete"));
  EXPECT_EQ(policy("q"), nullptr);
}

TEST_F(TextRoutePolicyTest, WhatALineDeletedIsNotActedOn) {
  clause("sequence 1 delete match route tag 5 set tag 1 action accept");
  EXPECT_EQ(sequence("p", 1), nullptr);
  line("route-policy a sequence 1 route-policy b route-policy a delete action accept set tag 5");
  EXPECT_EQ(policy("a"), nullptr);
  line(
      "route-policy b default-action accept route-policy b delete set tag 5 default-action accept");
  EXPECT_EQ(policy("b"), nullptr);
  // A sequence of another policy stays in hand.
  line("route-policy c sequence 1 route-policy d delete match route tag 5");
  EXPECT_EQ(sequence("c", 1)->match_flags, POL_MATCH_F_TAG);
  line("route-policy c sequence 1 route-policy d match tloc site-list s route-policy d delete");
  EXPECT_EQ(sequence("c", 1)->match.block, policy("c"));
}

TEST_F(TextRoutePolicyTest, ForwardingPoliciesHaveNoSequences) {
  line("forwarding-policy f sequence 10 match route site-list s action accept");
  t_pol_block* block = policy("f", POL_KIND_DATA);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(policy("f"), nullptr);
  EXPECT_EQ(site_list("s"), nullptr);
  EXPECT_EQ(block->default_action.action, POL_REJECT);
  line("forwarding-policy f default-action accept set vpn-list v");
  EXPECT_EQ(block->default_action.action, POL_ACCEPT);
  EXPECT_NE(vpn_list("v"), nullptr);
  line("forwarding-policy f delete");
  EXPECT_EQ(policy("f", POL_KIND_DATA), nullptr);
  EXPECT_EQ(vpn_list("v"), nullptr);
}

TEST_F(TextRoutePolicyTest, AForwardingPolicyInUseIsEmptiedAndStays) {
  Calls calls;
  line("forwarding-policy f default-action accept match route site-list s");
  t_pol_user* user = add_user("watcher", "f", &calls, POL_DIR_OUT, POL_KIND_DATA);
  line("forwarding-policy f delete default-action accept");
  EXPECT_EQ(calls.count, 1);
  pol_unregister(&user);
  EXPECT_EQ(policy("f", POL_KIND_DATA), nullptr);
}

TEST_F(TextRoutePolicyTest, AWordThatIsNoKeywordEndsTheLine) {
  seams::take_log();
  EXPECT_TRUE(match("tag 5 foo action accept"));
  EXPECT_NE(seams::take_log().back().find("]: no keyword: foo\n"), std::string::npos);
  EXPECT_EQ(entry_->match_flags, POL_MATCH_F_TAG);
  EXPECT_EQ(entry_->action, POL_REJECT);
  match("foo action accept");
  EXPECT_EQ(entry_->action, POL_REJECT);
  clause("set foo action accept");
  clause("set sequence 2 action accept");
  EXPECT_EQ(entry_->action, POL_REJECT);
  EXPECT_EQ(sequence("p", 2), nullptr);
  // After a match type, a group's keyword is one.
  EXPECT_TRUE(clause("match route action accept"));
  EXPECT_EQ(entry_->action, POL_ACCEPT);
  // A clause needs its match.
  EXPECT_FALSE(match("tag 5 site 7"));
}

TEST_F(TextRoutePolicyTest, MissingValuesReadAsEmptyWords) {
  for (const char* group :
       {"sequence", "match", "match route", "match route tag", "match route tloc",
        "match route tloc 1.1.1.1", "match route prefix-list", "set", "set tloc", "set delete",
        "action", "default-action", "route-policy"}) {
    clause(group);
  }
  EXPECT_NE(sequence("p", 0), nullptr);
  EXPECT_NE(policy(""), nullptr);
  line("route-policy");
  line("sequence 5 action accept");
  line("match route tag 5 set tag 1");
}

TEST_F(TextRoutePolicyTest, AGroupAtTheTwentiethWordStaysInBounds) {
  const std::string pad = "action accept action accept action accept action accept action accept ";
  for (const char* last : {"set", "action", "match", "sequence"}) {
    // 4 words, 5 pairs, 2 pairs and 1 word: the next is the twentieth.
    t_pol_test_tokens tokens = {};
    uint32_t kind = 0;
    std::string text = "route-policy p sequence 1 " + pad + "action accept action accept actions " +
                       last + " tloc 1.1.1.1 3\n";
    uint32_t count = pol_test_get_tokens(text.c_str(), tokens, &kind);
    EXPECT_EQ(count, 20u);
    pol_test_parse_route_policy(tokens, count);
  }
  t_pol_test_tokens full;
  memset(full, 'x', sizeof full);
  for (auto& slot : full) memcpy(slot, "set", 4);
  memcpy(full[0], "route-policy", 13);
  memset(full[1], 'y', sizeof full[1]);
  pol_test_parse_route_policy(full, UINT32_MAX);
  EXPECT_NE(policy(std::string(49, 'y').c_str()), nullptr);
}

// Outside the fixture: a failed allocation stays counted.
TEST(TextRoutePolicy, AnyAllocationMayFail) {
  TextFile file(
      "route-policy q sequence 1 match route site-list s1 match route tloc-list t1\n"
      "route-policy q sequence 1 match route site-list s2 match route prefix-list l\n"
      "route-policy q sequence 1 match route site-list x delete set vpn-list w\n"
      "route-policy q sequence 1 set vpn-list v set delete tag 1 action accept\n"
      "route-policy q default-action accept match route vpn-list v match tloc\n"
      "route-policy q default-action accept match tloc site-list s3 set vpn-list u\n"
      "route-policy q default-action accept delete\n"
      "forwarding-policy q default-action accept set vpn-list y route-policy q delete\n"
      "forwarding-policy q delete\n");
  bool hit = true;
  for (int nth = 1; hit; ++nth) {
    t_pol_callbacks callbacks = {};
    t_pol_ctx* ctx = pol_init(&callbacks);
    {
      seams::FailOnce failure(nth);
      EXPECT_EQ(pol_test_parse_file(file.path(), nullptr), 0);
      hit = failure.hit();
    }
    EXPECT_EQ(pol_block_find(ctx, "q", POL_KIND_ROUTE, nullptr), nullptr) << nth;
    EXPECT_EQ(ctx->vpn_lists.first(), nullptr) << nth;
    EXPECT_EQ(ctx->site_lists.first(), nullptr) << nth;
    pol_destroy();
    ASSERT_LT(nth, 1000);
  }
}

}  // namespace
