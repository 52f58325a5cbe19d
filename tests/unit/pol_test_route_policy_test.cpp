// SPDX-License-Identifier: Apache-2.0
#include <cstring>

#include "pol_test_fixture.h"
#include "support/seams.h"

namespace {

// A line, whether it tells the watcher of policy p, and what sequence 1 of p and the lists are
// then.
struct Step {
  const char* line;  // after "route-policy p sequence 1 "
  bool told;
  const char* shown;
  const char* lists = "";
};

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

  void follow(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      EXPECT_EQ(clause(step.line), step.told) << step.line;
      EXPECT_EQ(shown(sequence("p", 1)), step.shown) << step.line;
      EXPECT_EQ(lists(), step.lists) << step.line;
    }
  }

  void SetUp() override {
    TextPolicyTest::SetUp();
    add_user("watcher", "p", &calls_);
    line("route-policy p sequence 1 match route");
  }

  Calls calls_;
};

TEST_F(TextRoutePolicyTest, ALineReadTwiceChangesNothing) {
  const char* again = "match route site-list s set tag 7 set tloc 10.0.0.1 3 action accept";
  EXPECT_TRUE(clause(again));
  EXPECT_FALSE(clause(again));
  EXPECT_EQ(lists(), "s ");
  EXPECT_TRUE(line("route-policy p sequence 4294967295 match tloc"));
  EXPECT_FALSE(line("route-policy p sequence -1 match tloc"));
  EXPECT_EQ(current(pol::MEM_ENTRY), 2u);
}

TEST_F(TextRoutePolicyTest, MatchClausesAreStoredAndDeleted) {
  const std::pair<const char*, const char*> cases[] = {
      {"tag 5x", "tag: 5"},
      {"preference 100", "preference: 100"},
      {"domain 2", "domain: 2"},
      {"vpn-id 1099511627776", "vpn-id: 1099511627776"},
      {"site 4294967296", "site-id: 0"},
      {"source-port 65537", "source-port: 1"},
      {"destination-ports 443", "destination-port: 443"},
      {"dscp af12", "dscp: af12"},
      {"dscp ef", "dscp: default"},
      {"tloc 10.0.0.1 3", "tloc: 10.0.0.1:3:0"},
  };
  for (const auto& [text, expected] : cases) {
    const std::string match = std::string("match route ") + text;
    const std::string kept = std::string("match route ") + expected + " action: reject set:";
    EXPECT_TRUE(clause(match)) << text;
    EXPECT_EQ(shown(sequence("p", 1)), kept);
    EXPECT_FALSE(clause(match)) << text;
    EXPECT_TRUE(clause(match + " delete")) << text;
    EXPECT_EQ(shown(sequence("p", 1)), "match route action: reject set:");
    EXPECT_FALSE(clause(match + " delete")) << text;
  }
}

TEST_F(TextRoutePolicyTest, AProtocolLivesUnderTheFlagOfDscp) {
  for (const auto& [word, value] : {std::pair("icmp", 3u), {"udp", 1u}, {"tcp", 2u}, {"x", 0u}}) {
    EXPECT_TRUE(clause("match route protocol " + std::string(word)));
    EXPECT_EQ(sequence("p", 1)->match.proto, value);
    EXPECT_EQ(sequence("p", 1)->match_flags, POL_MATCH_F_DSCP);
  }
  EXPECT_TRUE(clause("match route protocol x"));
  EXPECT_FALSE(clause("match route protocol x delete"));
  EXPECT_TRUE(clause("match route dscp af11 delete"));
}

TEST_F(TextRoutePolicyTest, AddressesOfPacketsAreReadOver) {
  seams::take_log();
  follow({{"match route source-ip 1.1.1.1 match route destination-ip x delete action accept", true,
           "match route action: accept set:"}});
  EXPECT_NE(seams::take_log().find("]: src-ip-add\n"), std::string::npos);
}

TEST_F(TextRoutePolicyTest, ListClausesMoveAndLeaveTellingNobody) {
  const char* empty = "match route action: reject set:";
  follow(
      {{"match route site-list a", true, "match route site-list: a action: reject set:", "a "},
       {"match route site-list b", true, "match route site-list: b action: reject set:", "b "},
       {"match route site-list any delete", false, empty},
       {"match route site-list any delete", false, empty},
       {"match route vpn-list v", true, "match route vpn-list: v action: reject set:", "v "},
       {"match route vpn-list any delete", false, empty},
       {"match route tloc-list t", true, "match route tloc-list: t action: reject set:", "t "},
       {"match route tloc-list any delete", false, empty},
       {"match route prefix-lists p", true, "match route prefix-list: p action: reject set:", "p "},
       {"match route prefix-list any delete", false, empty},
       {"match route site-list b", true, "match route site-list: b action: reject set:", "b "}});
}

TEST_F(TextRoutePolicyTest, AnotherMatchTypeOrItsDeletionDropsTheClauses) {
  follow(
      {{"match route site-list s match route tag 5", true,
        "match route tag: 5 site-list: s action: reject set:", "s "},
       {"match tloc preference 7", true, "match tloc preference: 7 action: reject set:"},
       {"match routes", true, "match route action: reject set:"},
       {"match services", true, "match service action: reject set:"},
       {"match rout", true, "match packet action: reject set:"},
       {"match tlocs site-list s", true, "match tloc site-list: s action: reject set:", "s "},
       {"match route delete preference 9", true, "match tloc preference: 9 action: reject set:"}});
}

TEST_F(TextRoutePolicyTest, SetClausesAreStoredAndDeleted) {
  follow(
      {{"set tag 1 set preference 2 set vpn-id 3 set vpn-list v set tloc 10.0.0.1 4", true,
        "match route action: reject set: tag: 1 preference: 2 vpn-id: 3 vpn-list: v "
        "tloc: 10.0.0.1:4:0 [none]",
        "v "},
       {"set vpn-list w delete", false,
        "match route action: reject set: tag: 1 preference: 2 vpn-id: 3 tloc: 10.0.0.1:4:0 [none]"},
       {"set tloc 0.0.0.0 0 delete set tag 0 delete", true,
        "match route action: reject set: preference: 2 vpn-id: 3"},
       {"set vpn-list v set delete tag 8", true, "match route action: reject set: tag: 8"}});
}

TEST_F(TextRoutePolicyTest, ActionsTakeTheirFirstLettersAndOtherWordsEndTheLine) {
  const char* accept = "match route action: accept set:";
  const char* reject = "match route action: reject set:";
  seams::take_log();
  follow({{"action accepted", true, accept},
          {"actions accept", false, accept},
          {"action acc", true, reject},
          {"match route foo action accept", false, reject},
          {"set foo action accept", false, reject},
          {"set sequence 2 action accept", false, reject},
          {"match route tag 5 foo action accept", true, "match route tag: 5 action: reject set:"},
          // A clause needs its match.
          {"match route tag 5 delete site 7", true, reject},
          {"action accept", true, accept},
          {"action accept delete", true, reject},
          {"action accept delete", false, reject},
          // After a match type, a group's keyword is one.
          {"match route action accept", true, accept}});
  EXPECT_NE(seams::take_log().find("]: no keyword: foo\n"), std::string::npos);
  EXPECT_EQ(sequence("p", 2), nullptr);
}

TEST_F(TextRoutePolicyTest, DefaultActionTellsOfMatchesThatWentAndOfAnAcceptDeleted) {
  const std::string fill =
      "accept set tag 5 set vpn-list v match tloc tloc-list t match tloc tag 1";
  const std::tuple<std::string, bool, const char*> steps[] = {
      {"accept", false, "match unknown action: accept set:"},
      {"accept set tag 5 match route site-list s", true,
       "match route site-list: s action: accept set: tag: 5"},
      {"reject", true, "match unknown action: reject set: tag: 5"},
      {"reject action accept", true, "match unknown action: accept set: tag: 5"},
      {fill, true, "match tloc tag: 1 tloc-list: t action: accept set: tag: 5 vpn-list: v"},
      {"reject delete", false, "match unknown action: reject set:"},
      {"accept delete", true, "match unknown action: reject set:"},
      {fill, true, "match tloc tag: 1 tloc-list: t action: accept set: tag: 5 vpn-list: v"},
  };
  for (const auto& [text, told, expected] : steps) {
    EXPECT_EQ(line("route-policy p default-action " + text), told) << text;
    EXPECT_EQ(shown(&policy("p")->default_action), expected) << text;
  }
  EXPECT_EQ(lists(), "v t ");
}

TEST_F(TextRoutePolicyTest, DeletesOfPoliciesAndSequences) {
  line("route-policy p sequence 10 match route site-list s");
  EXPECT_TRUE(line("route-policy p sequence 10 delete"));
  EXPECT_EQ(sequence("p", 10), nullptr);
  EXPECT_EQ(lists(), "");
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

TEST_F(TextRoutePolicyTest, ForwardingPoliciesHaveNoSequencesAndStayEmptyForTheirUsers) {
  line("forwarding-policy f sequence 10 match route site-list s action accept");
  t_pol_block* block = policy("f", POL_KIND_DATA);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(policy("f"), nullptr);
  EXPECT_EQ(lists(), "");
  line("forwarding-policy f default-action accept set vpn-list v match route site-list s");
  EXPECT_EQ(shown(&block->default_action),
            "match route site-list: s action: accept set: vpn-list: v");
  Calls calls;
  t_pol_user* user = add_user("watcher", "f", &calls, POL_DIR_OUT, POL_KIND_DATA);
  line("forwarding-policy f delete default-action accept");
  EXPECT_EQ(lists(), "");
  EXPECT_EQ(calls.count, 1);
  pol_unregister(&user);
  EXPECT_EQ(policy("f", POL_KIND_DATA), nullptr);
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
  for (const char* text : {"route-policy", "sequence 5 action accept", "match route tag 5"}) {
    line(text);
  }
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
      seams::Fail failure(nth);
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
