// SPDX-License-Identifier: Apache-2.0
#include "base/pol_log.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

using ContextTest = PolicyTest;

TEST_F(ContextTest, CountsTypesOneToThirtyTwoOnlyAndFailuresToo) {
  auto allocations = [] {
    uint64_t sum = 0;
    for (const t_pol_mem_info& row : g_pol_mem_info) sum += row.allocs;
    return sum;
  };
  const uint64_t before = allocations();
  pol_free(pol_malloc(8, 0), 0);
  pol_free(pol_calloc(1, 8, 33), 33);
  pol_free(nullptr, 2);
  EXPECT_EQ(allocations(), before);

  t_pol_mem_info& row = g_pol_mem_info[32];
  const t_pol_mem_info was = row;
  void* first = pol_malloc(8, 32);
  void* second = pol_malloc(8, 32);
  pol_free(first, 32);
  pol_free(second, 32);
  pol_free(pol_calloc(2, 4, 32), 32);
  {
    seams::Fail none(1);
    EXPECT_EQ(pol_malloc(8, 32), nullptr);
  }
  EXPECT_EQ(row.allocs - was.allocs, 4u);
  EXPECT_EQ(row.frees - was.frees, 3u);
  EXPECT_EQ(row.peak, 2u);
  row = was;
}

TEST_F(ContextTest, LivesAgainAfterDestroyWhichCallsNobodyBack) {
  for (int i = 0; i < 3; ++i) {
    Calls calls;
    add_user("u", "p", &calls);
    t_pol_entry* e = entry(block("p"), 10);
    pol_entry_match_site_list_add(ctx, e, "s", &changed);
    pol_entry_match_pfx_list_add(ctx, e, "x", &changed);
    pol_entry_set_vpn_list_add(ctx, e, "v", &changed);
    block("d", POL_KIND_DATA);
    block("c", POL_KIND_CFLOWD);
    EXPECT_EQ(pol_init(nullptr), nullptr);
    EXPECT_EQ(g_pol_ctx_p, ctx);
    pol_destroy();
    EXPECT_EQ(calls.count, 0);
    EXPECT_EQ(g_pol_ctx_p, nullptr);
    pol_destroy();
    init();
    EXPECT_EQ(pol_block_first(ctx, POL_KIND_ROUTE), nullptr);
  }
}

TEST_F(ContextTest, MemoryReportListsEveryRow) {
  char command[] = "dump";
  char detail[] = "x--detailed";  // the word is found inside a longer one
  char* argv[] = {command, detail};
  std::string text = printed([&](t_cli_user_ctx* cli) { pol_dump_memory_info(cli, 0, 2, argv); });
  EXPECT_EQ(text.rfind("    ================================\n    MEMORY STATISTICS\n", 0), 0u);
  char row[256];
  snprintf(row, sizeof row, "\n%-20s    %-25s    %-10u  no    %-12lu", "set vpn list",
           "POL_MAX_VPN*vpn_list", 2048u, g_pol_mem_info[23].allocs);
  EXPECT_NE(text.find(row), std::string::npos) << text;
  const bool written =
      text.find("\n wrote malloc info to /var/log/pol_meminfo.txt\n") != std::string::npos;
  EXPECT_EQ(written, access("/var/log/pol_meminfo.txt", W_OK) == 0);
}

TEST_F(ContextTest, LogsOnlyAboveItsLevelWithNameAndLine) {
  seams::take_log();
  POL_LOG("hidden %d\n", 1);
  pol_debug_set(3);
  POL_LOG_AT(3, "seen %d\n", 2);
  POL_LOG_AT(4, "hidden %d\n", 3);
  EXPECT_EQ(seams::take_log(),
            "191 TestBody[" + std::to_string(__LINE__ - 3) + "]: [POL] seen 2\n");
}

}  // namespace
