// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <thread>

#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

// id, address, color, encapsulation, VPN, service
using Asked = std::array<uint64_t, 6>;
std::vector<Asked> g_asked;
uint32_t g_answers = 0;  // TLOCs a call

void resolve(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
             uint16_t service, t_pol_tloc_result* result) {
  g_asked.push_back({id, ipv4, color, encap, vpn, service});
  result->count += g_answers;  // a careless host: more than there is room for, and nothing written
}

class ExecTest : public PolicyTest {
 protected:
  void SetUp() override {
    PolicyTest::SetUp();
    g_asked.clear();
    g_answers = 1;
    attr = {};
    pol_pre_execute(&query, 3);
    query.match_type = POL_MATCH_ROUTE;
    query.attr = &attr;
    query.tlocs = &tlocs;
    out = add_user("out", "p", nullptr, POL_DIR_OUT, POL_KIND_ROUTE, resolve);
    in = add_user("in", "p", nullptr, POL_DIR_IN, POL_KIND_ROUTE, resolve);
    b = block("p");
  }

  void TearDown() override {
    pol_post_execute(&query);
    PolicyTest::TearDown();
  }

  uint32_t run(t_pol_user* user) {
    query.applied = 0;
    return pol_execute(user, &query);
  }

  t_pol_user* out = nullptr;
  t_pol_user* in = nullptr;
  t_pol_block* b = nullptr;
  t_pol_route_attr attr;
  t_pol_route_query query;
  t_pol_tloc_result tlocs;
};

TEST_F(ExecTest, NothingToAskRejects) {
  EXPECT_EQ(pol_execute(nullptr, &query), POL_REJECT);
  EXPECT_EQ(pol_execute(out, nullptr), POL_REJECT);
  EXPECT_EQ(run(out), POL_REJECT) << "no sequence, no default action";
  pol_pre_execute(nullptr, 1);
  pol_post_execute(nullptr);
  query.attr = nullptr;
  pol_entry_match_tag_add(ctx, entry(b, 10), 0, &changed);
  EXPECT_EQ(run(out), POL_REJECT) << "no attributes, no tag";
}

TEST_F(ExecTest, OriginSubTypesOfProtocolFourPairUp) {
  t_pol_entry* e = entry(b, 10);
  // Code of the clause, protocol and sub-type of the route. One of protocol 4 is not asked for the
  // entry's protocol.
  const std::array<uint8_t, 3> taken[] = {{6, 3, 1}, {5, 4, 4}, {5, 4, 6}, {4, 4, 3},
                                          {4, 4, 5}, {3, 4, 1}, {6, 4, 1}};
  const std::array<uint8_t, 3> passed[] = {{6, 3, 2}, {13, 8, 1}, {5, 4, 5}, {5, 4, 3}, {4, 4, 6}};
  auto takes = [&](const std::array<uint8_t, 3>& row) {
    pol_entry_match_origin_add(ctx, e, row[0], &changed);
    attr.origin_protocol = row[1];
    attr.origin_subtype = row[2];
    return run(out) == POL_ACCEPT;
  };
  attr.present = POL_ATTR_ORIGIN;
  for (const auto& row : taken) EXPECT_TRUE(takes(row)) << testing::PrintToString(row);
  for (const auto& row : passed) EXPECT_FALSE(takes(row)) << testing::PrintToString(row);
  attr.present = 0;
  EXPECT_FALSE(takes(taken[0]));
}

TEST_F(ExecTest, GroupCountIsBounded) {
  t_pol_entry* e = entry(b, 10);
  pol_entry_match_group_add(ctx, e, 5, &changed);
  attr.present = POL_ATTR_GROUP;
  attr.group[POL_MAX_GROUP - 1] = 5;
  for (auto [count, action] :
       {std::pair(4294967295u, POL_ACCEPT), {POL_MAX_GROUP - 1u, POL_REJECT}}) {
    attr.group_count = count;
    EXPECT_EQ(run(out), uint32_t{action});
  }
  attr.group[POL_MAX_GROUP - 1] = 0;
  attr.reserved[0] = 5;  // what lies behind the groups
  attr.group_count = 4294967295u;
  EXPECT_EQ(run(out), POL_REJECT);
}

TEST_F(ExecTest, SetTlocResolvesOrRejects) {
  t_pol_entry* e = entry(b, 10);
  t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
  pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
  query.id = 44;
  query.vpn = 8;
  EXPECT_EQ(run(in), POL_ACCEPT) << "in either direction";
  EXPECT_EQ(g_asked, (std::vector<Asked>{{44, 0x0a000001, 3, 2, 8, 0}}));
  EXPECT_EQ(tlocs.count, 1u);
  g_answers = 0;
  EXPECT_EQ(run(out), POL_REJECT);
  EXPECT_EQ(query.applied, POL_APPLIED_TLOC);
  query.tlocs = nullptr;
  EXPECT_EQ(run(out), POL_REJECT);
  g_answers = 1;
  EXPECT_EQ(run(out), POL_ACCEPT) << "an array is the caller's wish, not a condition";
  tloc.family = KEL_AF_INET6;
  pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
  run(out);
  EXPECT_EQ(g_asked.back()[1], 0u);
  // A TLOC query sets neither.
  query.match_type = POL_MATCH_TLOC;
  pol_entry_set_tloc_add(ctx, entry(b, 1, POL_MATCH_TLOC), &tloc, &changed);
  g_answers = 0;
  EXPECT_EQ(run(out), POL_ACCEPT);
  EXPECT_EQ(query.applied, 0);
}

TEST_F(ExecTest, UltimateTlocIsAppendedBehindAFullArray) {
  t_pol_entry* e = entry(b, 10);
  t_tloc_id tloc = tloc4(1);
  pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
  pol_entry_set_preference_add(ctx, e, 55, &changed);
  e->set.ultimate_tloc = 2;
  attr.tloc = tloc4(7);
  attr.label = 1234;
  g_answers = 1000;
  EXPECT_EQ(run(out), POL_ACCEPT);
  const t_pol_tloc_result_entry& last = tlocs.entry[64];
  EXPECT_EQ(std::tuple(tlocs.count, tlocs.ultimate), std::tuple(65u, 2));
  EXPECT_EQ(std::tuple(last.label, last.preference, last.tloc.addr.v4), std::tuple(1234u, 55u, 7u));
  g_answers = 0;
  EXPECT_EQ(run(out), POL_ACCEPT) << "the own TLOC alone suffices";
  e->set.ultimate_tloc = 1;
  EXPECT_EQ(run(out), POL_REJECT);
}

TEST_F(ExecTest, SetTlocListAndServiceActOutboundOnly) {
  t_pol_entry* e = entry(b, 10);
  for (uint32_t i = 0; i < 100; ++i) {
    t_tloc_id tloc = tloc4(i + 1);
    pol_tloc_list_add_entry(ctx, "t", &tloc, 0);
  }
  pol_entry_set_tloc_list_add(ctx, e, "t", &changed);
  EXPECT_EQ(run(in), POL_ACCEPT);
  EXPECT_EQ(query.applied, 0);
  EXPECT_TRUE(g_asked.empty());
  EXPECT_EQ(run(out), POL_ACCEPT);
  EXPECT_EQ(g_asked.size(), 64u);
  EXPECT_EQ(g_asked[63][1], 64u) << "in list order";
  EXPECT_EQ(tlocs.count, 64u);
  EXPECT_EQ(query.applied, POL_APPLIED_TLOC_LIST);

  g_asked.clear();
  t_tloc_id tloc = tloc4(0xac100001, 5, 1);
  pol_entry_set_service_add(ctx, e, 6, &tloc, 30, &changed);
  query.vpn = 9;
  run(out);
  EXPECT_EQ(query.applied, POL_APPLIED_TLOC_LIST | POL_APPLIED_SERVICE);
  ASSERT_EQ(g_asked.size(), 65u);
  EXPECT_EQ(g_asked[0], (Asked{0, 1, 1, 2, 9, 6})) << "no set VPN: the query's";
  EXPECT_EQ(g_asked[64], (Asked{0, 0xac100001, 5, 1, 30, 6}));
  EXPECT_EQ(tlocs.count, 1u) << "the service starts an empty array";
  pol_entry_set_vpn_id_add(ctx, e, 12, &changed);
  g_asked.clear();
  run(out);
  EXPECT_EQ(g_asked[0][4], 12u);
}

TEST_F(ExecTest, VpnArrayFillsInboundAndStopsAtItsEnd) {
  t_pol_entry* e = entry(b, 10);
  pol_entry_set_vpn_id_add(ctx, e, 4294967296u, &changed);
  for (uint32_t i = 0; i < 200; ++i) pol_vpn_list_add_entry(ctx, "v", i, i + 1);
  pol_entry_set_vpn_list_add(ctx, e, "v", &changed);
  EXPECT_EQ(run(out), POL_ACCEPT);
  EXPECT_EQ(query.vpn_array, nullptr);
  EXPECT_EQ(run(in), POL_ACCEPT);
  EXPECT_EQ(query.applied, POL_APPLIED_VPN);
  ASSERT_EQ(query.vpn_count, 128u);
  EXPECT_EQ(query.vpn_array[0].low, 4294967296u);
  EXPECT_EQ(query.vpn_array[127].low, 126u);
  EXPECT_EQ(run(in), POL_ACCEPT);
  EXPECT_EQ(query.vpn_count, 128u);
  EXPECT_EQ(query.applied, POL_APPLIED_VPN) << "applied, though nothing had room";
  // Only queries of kind 3 have it released.
  query.kind = 1;
  pol_post_execute(&query);
  query.kind = 3;
  EXPECT_EQ(current(23), 1u);
}

TEST_F(ExecTest, NoMemoryForTheVpnArrayLetsTheActionStand) {
  t_pol_entry* e = entry(b, 10);
  pol_entry_set_vpn_id_add(ctx, e, 1, &changed);
  UncountedFailures forgiven(23);
  seams::Fail none(1);
  EXPECT_EQ(run(in), POL_ACCEPT);
  EXPECT_EQ(query.applied, 0);
}

TEST_F(ExecTest, HandlesTellWhatAnOutboundRoutePolicySets) {
  t_tloc_id tloc = tloc4(1);
  t_pol_entry* e = entry(b, 10);
  pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
  pol_entry_set_service_add(ctx, e, 1, &tloc, 0, &changed);
  take_queued();
  EXPECT_EQ(pol_handle_sets_tloc(out), 1);
  EXPECT_EQ(pol_handle_sets_service(out), 1);
  EXPECT_EQ(pol_handle_sets_tloc_list(out), 0);
  t_pol_user* member = add_user("m", "p", nullptr, POL_DIR_OUT, POL_KIND_MEMBERSHIP);
  for (t_pol_user* other : {in, member, static_cast<t_pol_user*>(nullptr)}) {
    EXPECT_EQ(pol_handle_sets_tloc(other), 0);
  }
  // A policy of that name made again is not theirs.
  pol_block_find_and_delete(ctx, "p", POL_KIND_ROUTE, &changed);
  EXPECT_EQ(take_queued(), (std::vector<std::string>{"out", "in"}));
  entry(block("p"), 10);
  EXPECT_TRUE(take_queued().empty());
  EXPECT_EQ(run(out), POL_REJECT);
  EXPECT_EQ(pol_handle_sets_tloc(out), 0);
  char name[8] = "x";
  EXPECT_STREQ(pol_handle_get_name(out, name, sizeof name), "");
}

TEST_F(ExecTest, ExplainTellsTheDecisionThatSettingComesTo) {
  t_tloc_id tloc = tloc4(1);
  pol_entry_set_tloc_add(ctx, entry(b, 20), &tloc, &changed);
  t_pol_explain_step decision;
  g_answers = 0;
  EXPECT_EQ(pol_explain(out, &query, nullptr, nullptr, &decision), POL_REJECT);
  EXPECT_EQ(decision.sequence, 20u);
  EXPECT_EQ(decision.action, uint32_t{POL_REJECT});
  EXPECT_EQ(pol_explain(nullptr, &query, nullptr, nullptr, &decision), POL_REJECT);
  EXPECT_EQ(decision.is_default, 1);
}

TEST_F(ExecTest, ThreadsMayEvaluateAtOnce) {
  for (uint32_t i = 0; i < 500; ++i) {
    pol_site_list_add_entry(ctx, "s", i * 10, i * 10 + 4);
    t_pol_pfx_record record = {POL_PFX_LE, prefix4(i << 20, 12), 0, 24};
    pol_pfx_list_entry_add(ctx, "x", &record);
  }
  pol_entry_match_site_list_add(ctx, entry(b, 10), "s", &changed);
  pol_entry_match_pfx_list_add(ctx, entry(b, 10), "x", &changed);
  auto work = [this](t_pol_user* user, uint64_t* accepted) {
    t_pol_route_attr own = {};
    t_pol_route_query mine = query;
    mine.attr = &own;
    mine.tlocs = nullptr;
    for (uint32_t i = 0; i < 20000; ++i) {
      own.site = i % 5000;
      mine.prefix = prefix4(i << 17, 20);
      *accepted += pol_execute(user, &mine) == POL_ACCEPT;
    }
  };
  uint64_t here = 0;
  uint64_t there = 0;
  std::thread other(work, out, &there);
  work(in, &here);
  other.join();
  EXPECT_EQ(here, there);
  EXPECT_GT(here, 0u);
}

using ExecDeathTest = ExecTest;

TEST_F(ExecDeathTest, TlocOfAnUnknownFamilyMeetingItsLikeAborts) {
  t_tloc_id tloc = tloc4(1);
  tloc.family = 7;
  pol_entry_match_tloc_add(ctx, entry(b, 10), &tloc, &changed);
  attr.present = POL_ATTR_TLOC;
  EXPECT_EQ(run(out), POL_REJECT) << "another family is only another family";
  attr.tloc = tloc;
  EXPECT_EXIT(run(out), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
