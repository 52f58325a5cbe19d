// SPDX-License-Identifier: Apache-2.0
// What evaluation does at the ends of its arrays, and what it answers besides an action.
#include "core/pol_policy_index.h"
#include "support/policy_fixture.h"

namespace {

std::vector<uint32_t> g_asked;
uint32_t g_answers = 0;  // TLOCs a call

void resolve(uint16_t, uint32_t ipv4, uint8_t, uint8_t, uint64_t, uint16_t,
             t_pol_tloc_result* result) {
  g_asked.push_back(ipv4);
  result->count += g_answers;
}

class ExecTest : public PolicyTest {
 protected:
  void SetUp() override {
    PolicyTest::SetUp();
    pol_pre_execute(&query, 3);
    query.match_type = POL_MATCH_ROUTE;
    query.tlocs = &tlocs;
    out = add_user("out", "p", nullptr, POL_DIR_OUT, POL_KIND_ROUTE, resolve);
    in = add_user("in", "p", nullptr, POL_DIR_IN);
    e = entry(block("p"), 20);
  }

  void TearDown() override {
    pol_post_execute(&query);
    PolicyTest::TearDown();
  }

  t_pol_user* out = nullptr;
  t_pol_user* in = nullptr;
  t_pol_entry* e = nullptr;
  t_pol_route_query query;
  t_pol_tloc_result tlocs;
};

TEST_F(ExecTest, SixtyFourTlocsOfAListAreResolvedInItsOrder) {
  g_answers = 1;
  g_asked.clear();
  for (uint32_t i = 1; i <= 100; ++i) {
    const t_tloc_id tloc = tloc4(i);
    pol_tloc_list_add_entry(ctx, "t", &tloc, 0);
  }
  pol_entry_set_tloc_list_add(ctx, e, "t", &changed);
  EXPECT_EQ(pol_execute(out, &query), POL_ACCEPT);
  EXPECT_EQ(std::tuple(g_asked.size(), g_asked[63], tlocs.count), std::tuple(64u, 64u, 64u));
}

TEST_F(ExecTest, VpnArrayGoesOnFillingAndStopsAtItsEnd) {
  pol_entry_set_vpn_id_add(ctx, e, 4294967296u, &changed);
  for (uint32_t i = 0; i < 200; ++i) pol_vpn_list_add_entry(ctx, "v", i, i + 1);
  pol_entry_set_vpn_list_add(ctx, e, "v", &changed);
  for (int i = 0; i < 2; ++i) {
    query.applied = 0;
    EXPECT_EQ(pol_execute(in, &query), POL_ACCEPT);
    EXPECT_EQ(query.applied, POL_APPLIED_VPN) << "also when nothing has room";
    ASSERT_EQ(query.vpn_count, 128u);
    EXPECT_EQ(query.vpn_array[127].low, 126u);
  }
  // Only queries of kind 3 have it released.
  query.kind = 1;
  pol_post_execute(&query);
  query.kind = 3;
  EXPECT_EQ(current(pol::MEM_SET_VPN_LIST), 1u);
}

// More lists hold the route than an index follows.
TEST_F(ExecTest, TheOneOfManyListsThatDecidesIsFound) {
  const t_pol_pfx_record any = {POL_PFX_LE, {}, 0, 32};
  for (uint32_t i = 1; i <= 100; ++i) {
    const std::string list = "l" + std::to_string(i);
    t_pol_entry* one = entry(block("p"), 100 + i);
    pol_pfx_list_entry_add(ctx, list.c_str(), &any);
    pol_site_list_add_entry(ctx, list.c_str(), i, i);
    pol_entry_match_pfx_list_add(ctx, one, list.c_str(), &changed);
    pol_entry_match_site_list_add(ctx, one, list.c_str(), &changed);
  }
  pol_entry_match_tag_add(ctx, e, 1, &changed);
  pol_user_chg_list_notify_all(ctx);
  t_pol_route_attr attr = {};
  query.attr = &attr;
  query.prefix.addr.family = KEL_AF_INET;
  t_pol_explain_step decision;
  for (uint32_t site : {1u, 99u}) {
    attr.site = site;
    EXPECT_EQ(pol_explain(out, &query, nullptr, nullptr, &decision), POL_ACCEPT);
    EXPECT_EQ(decision.sequence, 100 + site);
  }
}

// Others need not pay for a policy's lists; those that share one share what is known of all.
TEST_F(ExecTest, PoliciesShareADirectoryOnceTheyShareAList) {
  const t_pol_pfx_record any = {POL_PFX_LE, {{KEL_AF_INET, {}}, 0}, 0, 32};
  const auto fill = [&](const char* policy, uint32_t first, bool empty = false) {
    for (uint32_t i = 0; i < 10; ++i) {
      const std::string list = "l" + std::to_string(first + i);
      if (!empty) pol_pfx_list_entry_add(ctx, list.c_str(), &any);
      pol_entry_match_pfx_list_add(ctx, entry(block(policy), 100 + i), list.c_str(), &changed);
    }
    pol_user_chg_list_notify_all(ctx);
  };
  const auto directory = [&](const char* policy) {
    const pol::PolicyIndex* index = block(policy)->index;
    return index != nullptr ? index->families[0].directory() : nullptr;
  };
  add_user("q", "q", nullptr, POL_DIR_IN);
  fill("p", 1);
  fill("q", 101);
  EXPECT_NE(directory("p"), nullptr);
  EXPECT_NE(directory("q"), nullptr);
  EXPECT_NE(directory("p"), directory("q"));
  fill("q", 5);
  EXPECT_NE(directory("p"), nullptr);
  EXPECT_EQ(directory("p"), directory("q"));
  // However many policies a directory has, it is the newcomer's that goes, even where no list has
  // elements.
  for (const char* policy : {"r", "s", "t"}) add_user(policy, policy, nullptr, POL_DIR_IN);
  fill("r", 201, true);
  fill("s", 210, true);
  const pol::ListDirectory* shared = directory("r");
  fill("t", 219, true);
  EXPECT_NE(shared, nullptr);
  EXPECT_EQ(directory("s"), shared);
  EXPECT_EQ(directory("t"), shared);
}

// An index grows by what comes behind its last sequence, one batch each, be it alike or not.
TEST_F(ExecTest, SequencesThatComeOneByOneAreFound) {
  const auto come = [&](uint32_t sequence, uint32_t tag, uint32_t group) {
    t_pol_entry* one = entry(block("p"), sequence);
    pol_entry_match_tag_add(ctx, one, tag, &changed);
    if (group != 0) pol_entry_match_group_add(ctx, one, group, &changed);
    pol_user_chg_list_notify_all(ctx);
  };
  pol_entry_match_tag_add(ctx, e, 1000, &changed);
  for (uint32_t i = 1; i <= 2; ++i) come(30 + i, 50, i);
  for (uint32_t i = 100; i < 115; ++i) come(i, i, 0);
  const pol::PolicyIndex* before = block("p")->index;
  ASSERT_NE(before, nullptr);
  for (uint32_t i = 3; i <= 6; ++i) come(200 + i, 50, i);
  EXPECT_EQ(block("p")->index, before);
  static t_pol_route_attr attr = {};
  attr.present = POL_ATTR_TAG | POL_ATTR_GROUP;
  attr.tag = 50;
  attr.group_count = 1;
  query.attr = &attr;
  t_pol_explain_step decision;
  for (uint32_t i = 1; i <= 6; ++i) {
    attr.group[0] = i;
    pol_explain(out, &query, nullptr, nullptr, &decision);
    EXPECT_EQ(decision.sequence, (i <= 2 ? 30 : 200) + i);
  }
}

TEST_F(ExecTest, ExplainTellsTheDecisionThatSettingComesTo) {
  const t_tloc_id tloc = tloc4(1);
  pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
  t_pol_explain_step decision;
  g_answers = 0;
  EXPECT_EQ(pol_explain(out, &query, nullptr, nullptr, &decision), POL_REJECT);
  EXPECT_EQ(std::tuple(decision.sequence, decision.action), std::tuple(20u, POL_REJECT));
  EXPECT_EQ(pol_explain(nullptr, &query, nullptr, nullptr, &decision), POL_REJECT);
  EXPECT_EQ(decision.is_default, 1);
  pol_block_find_and_delete(ctx, "p", POL_KIND_ROUTE, &changed);
  char name[8] = "x";
  EXPECT_STREQ(pol_handle_get_name(out, name, sizeof name), "");
}

TEST_F(ExecTest, BytesBeyondAnIpv4AddressAreNoneOfATloc) {
  t_tloc_id tloc = tloc4(1);
  pol_tloc_list_add_entry(ctx, "t", &tloc, 5);
  tloc.addr.v6[9] = 0x77;
  EXPECT_NE(pol_tloc_list_find_entry(ctx, "t", &tloc), nullptr);
}

}  // namespace
