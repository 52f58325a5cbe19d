// SPDX-License-Identifier: Apache-2.0
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

using BlockTest = PolicyTest;

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
  // A reject with clauses is something to delete, too.
  own->action = POL_REJECT;
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_block_default_action_delete(ctx, b, c); }));
}

// Policies gone alone, their users later: one that stays for its user stands in no tree.
TEST_F(BlockTest, APolicyWhoseTreeWentGoesWithItsLastUser) {
  t_pol_user* user = add_user("a", "alone", nullptr, POL_DIR_IN, POL_KIND_DATA);
  pol_block_destroy(ctx);
  EXPECT_EQ(pol_block_init(ctx), POL_OK);
  pol_unregister(&user);
  EXPECT_EQ(current(pol::MEM_BLOCK), 0u);
}

}  // namespace
