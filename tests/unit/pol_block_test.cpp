// SPDX-License-Identifier: Apache-2.0
#include "pol_fwd_block_internal.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

using BlockTest = PolicyTest;

TEST_F(BlockTest, WalksPoliciesByNameAndSequencesByNumber) {
  for (const char* name : {"b", "a", "c"}) block(name);
  block("other", POL_KIND_MEMBERSHIP);
  std::string names;
  for (t_pol_block* b = pol_block_first(ctx, POL_KIND_ROUTE); b != nullptr;
       b = pol_block_next(ctx, b, POL_KIND_ROUTE)) {
    names += b->name;
  }
  EXPECT_EQ(names, "abc");
  t_pol_block* b = block("a");
  for (uint32_t sequence : {10u, 5u, 4294967295u, 20u, 7u}) entry(b, sequence);
  pol_entry_find_and_delete(ctx, b, 7, &changed);
  std::vector<uint32_t> sequences;
  for (t_pol_entry& e : b->in_order) sequences.push_back(e.sequence);
  EXPECT_EQ(sequences, (std::vector<uint32_t>{5, 10, 20, 4294967295u}));
}

TEST_F(BlockTest, NamesAreCutAtTheirField) {
  std::string name(POL_NAME_SIZE + 40, 'x');
  t_pol_block* b = block(name.c_str());
  EXPECT_EQ(strlen(b->name), POL_NAME_SIZE - 1u);
  name.back() = 'y';
  EXPECT_EQ(block(name.c_str()), b);
  // A field without a NUL, as a C caller may pass it.
  std::vector<char> field(POL_NAME_SIZE, 'x');
  EXPECT_EQ(pol_block_find(ctx, field.data(), POL_KIND_ROUTE, nullptr), b);
}

TEST_F(BlockTest, UnknownKindsDoNothing) {
  for (uint32_t kind : {0u, 6u, 4294967295u}) {
    EXPECT_EQ(block("x", kind), nullptr);
    EXPECT_EQ(pol_block_first(ctx, kind), nullptr);
    EXPECT_FALSE(changes([&](uint8_t* c) { pol_block_find_and_delete(ctx, "x", kind, c); }));
  }
}

TEST_F(BlockTest, OnlyRealChangesQueueUsers) {
  Calls calls;
  add_user("u", "p", &calls);
  t_pol_block* b = block("p");
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_block_find_or_create(ctx, "p", POL_KIND_ROUTE, c); }));
  EXPECT_TRUE(take_queued().empty());

  t_pol_entry* e = pol_entry_find_or_create(ctx, b, 10, &changed);
  EXPECT_EQ(take_queued(), std::vector<std::string>{"u"});
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_find_or_create(ctx, b, 10, c); }));
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_action_add(ctx, e, POL_REJECT, c); }));
  EXPECT_TRUE(take_queued().empty());
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_action_add(ctx, e, POL_ACCEPT, c); }));
  EXPECT_EQ(take_queued().size(), 1u);
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_action_delete(ctx, e, c); }));
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_action_delete(ctx, e, c); }));
  take_queued();
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_entry_find_and_delete(ctx, b, 11, c); }));
  EXPECT_TRUE(take_queued().empty());
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_entry_find_and_delete(ctx, b, 10, c); }));
  EXPECT_EQ(take_queued().size(), 1u);
}

TEST_F(BlockTest, DefaultActionTakesClausesWithTheirLists) {
  add_user("u", "p", nullptr);
  t_pol_block* b = block("p");
  t_pol_entry* record = entry(block("template"), 1, 0, POL_ACCEPT);
  pol_entry_set_tag_add(ctx, record, 7, &changed);
  pol_entry_set_vpn_list_add(ctx, record, "v", &changed);
  take_queued();

  EXPECT_TRUE(changes([&](uint8_t* c) { pol_block_default_action_add(ctx, b, record, c); }));
  EXPECT_EQ(take_queued(), std::vector<std::string>{"u"});
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_block_default_action_add(ctx, b, record, c); }));
  EXPECT_TRUE(take_queued().empty());
  EXPECT_EQ(b->default_action.set.tag, 7u);

  // The list outlives the template, because the default action is a user of its own.
  pol_block_find_and_delete(ctx, "template", POL_KIND_ROUTE, &changed);
  pol_vpn_list_add_entry(ctx, "v", 1, 2);
  EXPECT_EQ(take_queued().size(), 0u) << "an add notifies at once";
  EXPECT_NE(pol_vpn_list_first(ctx), nullptr);
  pol_vpn_list_cfg_del(ctx, "v");
  EXPECT_NE(pol_vpn_list_first(ctx), nullptr);
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_block_default_action_delete(ctx, b, c); }));
  EXPECT_EQ(pol_vpn_list_first(ctx), nullptr);
  EXPECT_FALSE(changes([&](uint8_t* c) { pol_block_default_action_delete(ctx, b, c); }));
}

TEST_F(BlockTest, DeletingAPolicyLeavesItsUsersWithoutOne) {
  Calls calls;
  t_pol_user* user = add_user("u", "p", &calls);
  entry(block("p"), 10);
  take_queued();
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_block_find_and_delete(ctx, "p", POL_KIND_ROUTE, c); }));
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(calls.count, 1);

  // A policy of that name made again is not theirs.
  t_pol_block* again = block("p");
  entry(again, 10);
  EXPECT_TRUE(take_queued().empty());
  t_pol_route_query query;
  pol_pre_execute(&query, 1);
  query.match_type = POL_MATCH_ROUTE;
  EXPECT_EQ(pol_execute(user, &query), POL_REJECT);
  pol_unregister(&user);
  EXPECT_EQ(user, nullptr);
}

TEST_F(BlockTest, ForwardingPolicyGoesWithItsLastUser) {
  t_pol_user* first = add_user("a", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  t_pol_user* second = add_user("b", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  EXPECT_TRUE(changes([&](uint8_t* c) { pol_block_find_and_delete(ctx, "d", POL_KIND_DATA, c); }));
  EXPECT_EQ(take_queued().size(), 2u);
  EXPECT_NE(pol_block_find(ctx, "d", POL_KIND_DATA, nullptr), nullptr);
  pol_unregister(&first);
  EXPECT_NE(pol_block_find(ctx, "d", POL_KIND_DATA, nullptr), nullptr);
  pol_unregister(&second);
  EXPECT_EQ(pol_block_find(ctx, "d", POL_KIND_DATA, nullptr), nullptr);

  // Configured again in between, it is a policy like any other and stays.
  first = add_user("a", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
  pol_block_find_and_delete(ctx, "d", POL_KIND_DATA, &changed);
  block("d", POL_KIND_DATA);
  pol_unregister(&first);
  EXPECT_NE(pol_block_find(ctx, "d", POL_KIND_DATA, nullptr), nullptr);
  add_user("left at destroy", "d", nullptr, POL_DIR_IN, POL_KIND_DATA);
}

TEST_F(BlockTest, ForwardingPoliciesHaveNoSequencesTree) {
  EXPECT_EQ(pol_entry_find_or_create(ctx, block("d", POL_KIND_DATA), 10, &changed), nullptr);
}

TEST_F(BlockTest, OnlyForwardingAndCflowdPoliciesHaveXmlRecords) {
  auto records = [] { return current(8); };
  uint64_t before = records();
  block("r");
  block("m", POL_KIND_MEMBERSHIP);
  EXPECT_EQ(records(), before);
  block("d", POL_KIND_DATA);
  block("a", POL_KIND_PERF_ROUTE);
  block("c", POL_KIND_CFLOWD);
  EXPECT_EQ(records(), before + 3);
  pol_block_find_and_delete(ctx, "d", POL_KIND_DATA, &changed);
  pol_block_find_and_delete(ctx, "c", POL_KIND_CFLOWD, &changed);
  EXPECT_EQ(records(), before + 1);
}

TEST_F(BlockTest, FailedAllocationsInsertNothing) {
  UncountedFailures blocks(2);
  UncountedFailures users(14);
  {
    seams::FailFrom none(1);
    EXPECT_EQ(block("p"), nullptr);
    EXPECT_EQ(add_user("u", "p", nullptr), nullptr);
  }
  {
    seams::FailFrom none(2);  // the user is made, its policy is not
    EXPECT_EQ(add_user("u", "p", nullptr), nullptr);
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
