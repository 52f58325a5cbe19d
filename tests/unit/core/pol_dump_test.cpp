// SPDX-License-Identifier: Apache-2.0
#include <regex>

#include "support/golden.h"
#include "support/paths.h"
#include "support/policy_fixture.h"
#include "yarrow/yarrow_cli.h"

namespace {

class DumpTest : public PolicyTest {
 protected:
  // Everything printable at once: every clause and every kind of list.
  void build() {
    ASSERT_EQ(pol_test_parse_file((std::string(kGoldenDir) + "/dump/all.in").c_str(), nullptr), 0);
    // For the rest the text has no words.
    t_pol_entry* e = entry(block("main"), 10);
    t_tloc_id tloc = tloc4(0x0a000001, 3, 2);
    t_ipaddr address = {KEL_AF_INET, {0x0a000009}};
    pol_entry_match_group_add(ctx, e, 3, &changed);
    pol_entry_match_tloc_add(ctx, e, &tloc, &changed);
    pol_entry_match_origin_add(ctx, e, 2, &changed);
    pol_entry_match_originator_add(ctx, e, &address, &changed);
    pol_entry_match_carrier_add(ctx, e, 7, &changed);
    pol_entry_match_dscp_add(ctx, e, 13, &changed);
    pol_entry_match_color_add(ctx, e, 1, &changed);
    pol_entry_match_color_list_add(ctx, e, "colors", &changed);
    pol_entry_set_tloc_list_add(ctx, e, "tlocs", &changed);
    pol_entry_set_tloc_add(ctx, e, &tloc, &changed);
    pol_entry_set_service_add(ctx, e, 4, &tloc, 14, &changed);
    e->set.ultimate_tloc = 2;
    block("data", POL_KIND_DATA);
    block("flows", POL_KIND_CFLOWD);
    entry(block("members", POL_KIND_MEMBERSHIP), 5, POL_MATCH_SERVICE);
    pol_vpn_list_add_entry(ctx, "vpns", 1, 4294967295u);
    pol_tloc_list_add_entry(ctx, "tlocs", &tloc, 9);
    t_tloc_id v6 = {KEL_AF_INET6, {}, 4, 1};
    pol_tloc_list_add_entry(ctx, "tlocs", &v6, 0);
    // Elements keep their order, ranges unmerged; those that are there already are not added.
    for (uint16_t color : {3, 263, 2, 3}) pol_color_list_add_entry(ctx, "colors", color);
    for (auto [low, high] : {std::pair(5u, 5u), {15u, 30u}, {10u, 20u}, {9u, 3u}, {10u, 20u}}) {
      pol_site_list_add_entry(ctx, "sites", low, high);
    }
    t_pol_pfx_record records[] = {{POL_PFX_GE, prefix4(0x0a000000, 8), 16, 0},
                                  {POL_PFX_LE, prefix4(0x0a000000, 8), 0, 24},
                                  {POL_PFX_LE, prefix4(0x0a000000, 16), 0, 24},
                                  {POL_PFX_LE, {{KEL_AF_INET6, {}}, 16}, 0, 24}};
    for (const auto& record : records) pol_pfx_list_entry_add(ctx, "prefixes", &record);
    list_user_ = pol_site_list_user_add(ctx, "sites", nullptr, nullptr);
    take_queued();
    add_user("first", "main", nullptr);
    add_user("second", "main", nullptr, POL_DIR_IN);
    pol_block_users_add_to_chg_list(ctx, block("main"));
  }

  void TearDown() override {
    pol_list_unregister(list_user_);
    PolicyTest::TearDown();
  }

  t_pol_list_user* list_user_ = nullptr;
};

// Pointers differ from run to run, sizes and counts of memory from build to build.
std::string masked(const std::string& text) {
  std::string out = std::regex_replace(text, std::regex("0x[0-9a-f]{9,}"), "PTR");
  return out.substr(0, out.find("\n    MEMORY STATISTICS"));
}

TEST_F(DumpTest, AllMatchesItsGolden) {
  build();
  const std::string text =
      masked(printed([](t_cli_user_ctx* cli) { pol_dump_all(cli, 0, 0, nullptr); }));
  expect_golden("dump/all.ok", text);
}

TEST_F(DumpTest, NothingIsPrintedOfWhatIsNotThere) {
  t_pol_entry* e = entry(block("main"), 10);
  e->match_flags = POL_MATCH_F_PFX_LIST;  // whose list could not be made
  EXPECT_EQ(shown(e), "match route prefix-list: <none> ((nil)) action: accept set:");
  pol_destroy();
  EXPECT_EQ(printed([](t_cli_user_ctx* cli) { pol_dump_all(cli, 0, 0, nullptr); }), "");
  init();
}

TEST_F(DumpTest, LinesOfAnyLengthPrintWhole) {
  std::string text = printed(
      [](t_cli_user_ctx* cli) { maapi_cli_printf(cli, "%s|", std::string(2000, 'x').c_str()); });
  EXPECT_EQ(text.size(), 2001u);
  EXPECT_EQ(maapi_cli_printf(nullptr, "x"), -1);
}

}  // namespace
