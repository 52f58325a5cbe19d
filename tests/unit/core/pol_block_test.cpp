// SPDX-License-Identifier: Apache-2.0
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

}  // namespace
