// SPDX-License-Identifier: Apache-2.0
#include <csignal>

#include "forward/pol_fwd_block_internal.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

using BlockTest = PolicyTest;

TEST_F(BlockTest, WalksPoliciesByNameAndSequencesByNumber) {
  for (const char* name : {"b", "a", "c"}) block(name);
  block("other", POL_KIND_MEMBERSHIP);
  t_pol_block* b = block("a");
  for (uint32_t sequence : {10u, 5u, 4294967295u, 20u, 7u}) entry(b, sequence);
  pol_entry_find_and_delete(ctx, b, 7, &changed);
  std::string walked;
  for (t_pol_entry& e : b->in_order) walked += std::to_string(e.sequence) + " ";
  for (b = pol_block_first(ctx, POL_KIND_ROUTE); b != nullptr;
       b = pol_block_next(ctx, b, POL_KIND_ROUTE)) {
    walked += b->name;
  }
  EXPECT_EQ(walked, "5 10 20 4294967295 abc");
}

TEST_F(BlockTest, NamesAreCutAndUnknownKindsDoNothing) {
  t_pol_block* b = block(std::string(POL_NAME_SIZE + 40, 'x').c_str());
  EXPECT_EQ(strlen(b->name), POL_NAME_SIZE - 1u);
  // A field without a NUL, as a C caller may pass it.
  std::vector<char> field(POL_NAME_SIZE, 'x');
  EXPECT_EQ(pol_block_find(ctx, field.data(), POL_KIND_ROUTE, nullptr), b);
  for (uint32_t kind : {0u, 6u, 4294967295u}) {
    EXPECT_EQ(block("x", kind), nullptr);
    EXPECT_EQ(pol_block_first(ctx, kind), nullptr);
  }
}

TEST_F(BlockTest, DefaultActionTakesClausesWithTheirLists) {
  add_user("u", "p", nullptr);
  t_pol_block* b = block("p");
  t_pol_entry* record = entry(block("template"), 1, 0, POL_ACCEPT);
  pol_entry_set_vpn_list_add(ctx, record, "v", &changed);
  auto take = [&](uint8_t* c) { pol_block_default_action_add(ctx, b, record, c); };
  auto drop = [&](uint8_t* c) { pol_block_default_action_delete(ctx, b, c); };
  EXPECT_TRUE(tells(take));
  EXPECT_FALSE(tells(take));
  // Every difference makes it another: the action, a value of either kind, a list.
  pol_entry_action_add(ctx, record, POL_REJECT, &changed);
  EXPECT_TRUE(tells(take));
  pol_entry_action_add(ctx, record, POL_ACCEPT, &changed);
  for (uint8_t carrier : {1, 2}) {
    pol_entry_match_carrier_add(ctx, record, carrier, &changed);
    EXPECT_TRUE(tells(take));
  }
  pol_entry_set_vpn_list_add(ctx, record, "w", &changed);
  EXPECT_TRUE(tells(take));
  for (auto add : kListAdds) add(ctx, record, "l", &changed);
  pol_entry_set_tloc_list_add(ctx, record, "t", &changed);
  EXPECT_TRUE(tells(take));
  EXPECT_EQ(shown(&b->default_action),
            "match unknown vpn-list: l site-list: l tloc-list: l prefix-list: l carrier: 2 "
            "color-list: l action: accept set: vpn-list: w tloc-list: t [none]");

  // The lists outlive the template, because the default action is a user of its own.
  pol_block_find_and_delete(ctx, "template", POL_KIND_ROUTE, &changed);
  EXPECT_EQ(current(pol::MEM_VPN_LIST), 2u);
  EXPECT_TRUE(tells(drop));
  EXPECT_EQ(lists_there(), 0u);
  EXPECT_FALSE(tells(drop));
  // A reject with clauses is something to delete, too.
  pol_entry_match_tag_add(ctx, &b->default_action, 1, &changed);
  take_queued();
  EXPECT_TRUE(tells(drop));
}

// What clauses that are gone have left behind does not make a default action another.
TEST_F(BlockTest, DefaultActionsAreComparedByWhatIsConfigured) {
  add_user("u", "p", nullptr);
  t_pol_block* b = block("p");
  t_pol_entry* own = &b->default_action;
  t_pol_entry* record = entry(block("template"), 1, 0, POL_ACCEPT);
  pol_entry_match_tag_add(ctx, record, 5, &changed);
  auto take = [&](uint8_t* c) { pol_block_default_action_add(ctx, b, record, c); };
  EXPECT_TRUE(tells(take));
  const t_tloc_id tloc = tloc4(1);
  // Each pair adds and drops; 6 is left of a protocol once its flag, the DSCP's, is dropped.
  pol_entry_match_proto_add(ctx, own, 6, &changed);
  pol_entry_match_dscp_delete(ctx, own, &changed);
  pol_entry_set_service_add(ctx, own, 1, &tloc, 2, &changed);
  own->set.ultimate_tloc = 2;
  pol_entry_set_service_delete(ctx, own, &changed);
  pol_entry_match_add(ctx, b, own, POL_MATCH_ROUTE, &changed);
  pol_entry_match_delete(ctx, own, &changed);
  take_queued();
  EXPECT_TRUE(tells(take)) << "the tag went with the other match clauses";
  own->match.preference = 9;
  own->set.vpn_id = 9;
  EXPECT_FALSE(tells(take));
}

TEST_F(BlockTest, ForwardingPolicyGoesWithItsLastUser) {
  EXPECT_EQ(pol_entry_find_or_create(ctx, block("d", POL_KIND_DATA), 10, &changed), nullptr);
  auto find = [&] { return pol_block_find(ctx, "d", POL_KIND_DATA, nullptr); };
  t_pol_user* first = add_user("a", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  t_pol_user* second = add_user("b", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_block_find_and_delete(ctx, "d", POL_KIND_DATA, c); }));
  pol_unregister(&first);
  EXPECT_NE(find(), nullptr);
  pol_unregister(&second);
  EXPECT_EQ(find(), nullptr);

  // Configured again in between, it is a policy like any other and stays.
  first = add_user("a", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  pol_block_find_and_delete(ctx, "d", POL_KIND_DATA, &changed);
  block("d", POL_KIND_DATA);
  pol_unregister(&first);
  EXPECT_NE(find(), nullptr);
  add_user("left at destroy", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);

  // Policies gone alone, their users later: the one that stayed for its user stands in no tree.
  first = add_user("a", "alone", nullptr, POL_DIR_IN, POL_KIND_DATA);
  pol_block_destroy(ctx);
  EXPECT_EQ(pol_block_init(ctx), POL_OK);
  pol_unregister(&first);
  EXPECT_EQ(current(pol::MEM_BLOCK), 1u) << "that of the user left at destroy";
}

TEST_F(BlockTest, OnlyForwardingAndCflowdPoliciesHaveXmlRecords) {
  for (uint32_t kind = POL_KIND_ROUTE; kind <= POL_KIND_CFLOWD; ++kind) {
    block("x", kind);
    const bool has = kind != POL_KIND_ROUTE && kind != POL_KIND_MEMBERSHIP;
    EXPECT_EQ(current(pol::MEM_POLICY_CONFIG), has ? 1u : 0u) << kind;
    pol_block_find_and_delete(ctx, "x", kind, &changed);
    EXPECT_EQ(current(pol::MEM_POLICY_CONFIG), 0u) << kind;
  }
}

TEST_F(BlockTest, FailedAllocationsInsertNothing) {
  UncountedFailures blocks(pol::MEM_BLOCK);
  for (int nth : {1, 2}) {  // 2: the user is made, its policy is not
    const uint64_t users = current(pol::MEM_USER);
    seams::Fail none(nth);
    EXPECT_EQ(add_user("u", "p", nullptr), nullptr);
    EXPECT_EQ(current(pol::MEM_USER), users + (nth == 1 ? 1 : 0)) << "failures stay counted";
    if (nth == 1) ++g_pol_mem_info[pol::MEM_USER].frees;
  }
  EXPECT_EQ(pol_block_first(ctx, POL_KIND_ROUTE), nullptr);
  EXPECT_EQ(pol_user_find(ctx, "u", POL_KIND_ROUTE, POL_DIR_OUT, nullptr), nullptr);
}

using BlockDeathTest = PolicyTest;

TEST_F(BlockDeathTest, WalkingIntoAnotherKindEndsTheProcess) {
  t_pol_block* b = block("p");
  EXPECT_EXIT(pol_block_next(ctx, b, POL_KIND_CFLOWD), ::testing::KilledBySignal(SIGSEGV), "");
  EXPECT_EXIT(pol_fwd_block_delete(ctx, ctx->blocks[0].raw(), b, 1),
              ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
