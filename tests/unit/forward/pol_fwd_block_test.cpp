// SPDX-License-Identifier: Apache-2.0
// What is forwarding policies' own beyond what the model test compares, which also lets allocations
// fail: hosts' own calls, a teardown that ends the process, dumps.
#include <regex>

#include "support/golden.h"
#include "support/list_families.h"
#include "support/seams.h"

namespace {

constexpr uint32_t kApp = POL_KIND_PERF_ROUTE;
constexpr uint32_t kData = POL_KIND_DATA;

class FwdBlockTest : public PolicyTest {
 protected:
  t_pol_entry* sequence(const char* policy, uint32_t kind, const char* vpn, int32_t number) {
    block(policy, kind);
    pol_fwd_vpn_find_or_create(ctx, policy, kind, vpn);
    return pol_fwd_entry_find_or_create(ctx, policy, kind, vpn, number);
  }

  // Everything that a sequence may name, each by its role's letter.
  void name_all(t_pol_entry* e) {
    const pol::FwdRef* refs[] = {&pol::kFwdSrcPfx,     &pol::kFwdDstPfx,  &pol::kFwdSrcPfx6,
                                 &pol::kFwdDstPfx6,    &pol::kFwdAppId,   &pol::kFwdAppList,
                                 &pol::kFwdDnsAppList, &pol::kFwdPolicer, &pol::kFwdSaasAppList,
                                 &pol::kFwdSlaClass,   &pol::kFwdTlocList};
    for (const pol::FwdRef* ref : refs) pol::fwd_ref_add(ctx, e, "a", &changed, *ref);
  }

  void forget_left_behind(t_pol_entry* e) {
    pol::fwd_ref_delete(ctx, e, &changed, pol::kFwdDnsAppList);
    pol::fwd_ref_delete(ctx, e, &changed, pol::kFwdSaasAppList);
  }
};

TEST_F(FwdBlockTest, EveryPolicysTextGoesOnceAtTheEnd) {
  block("p", kData);
  block("r", kApp);
  add_user("u", "q", nullptr, POL_DIR_IN, kData);
  add_user("v", "s", nullptr, POL_DIR_IN, kApp);
  pol_block_find_and_delete(ctx, "q", kData, &changed);  // and is kept for its user
  pol_debug_set(3);
  seams::take_log();
  pol_destroy();
  const std::string log = seams::take_log();
  for (const char* line :
       {"policy p of type 1", "policy q of type 1", "policy r of type 2", "policy s of type 2"}) {
    const std::string text = std::string("Delete xml config entry for ") + line + "\n";
    EXPECT_NE(log.find(text), std::string::npos) << line;
    EXPECT_EQ(log.find(text), log.rfind(text)) << line;
  }
  pol_debug_set(0);
  init();
}

TEST_F(FwdBlockTest, DumpsOfObjectsMatchTheirGolden) {
  for (const char* policy : {"p", "q"}) name_all(sequence(policy, kApp, "v", 1));
  const std::string longest(70, 'n');
  pol_fwd_entry_dst_pfx_upd(ctx, "q", kApp, "v", 1, longest.c_str());
  pol_fwd_policer_entry_change(ctx, "unused");
  pol_fwd_app_id_entry_change(ctx, "unused");
  pol_app_list_first(ctx)->changed = 0;
  std::string text = printed([](t_cli_user_ctx* cli) {
    pol_dump_app_list_all(cli, 0, 0, nullptr);
    pol_dump_fwd_pfx_list_all(cli, 0, 0, nullptr);
    pol_dump_fwd_pfx6_list_all(cli, 0, 0, nullptr);
    pol_dump_fwd_sla_class_all(cli, 0, 0, nullptr);
    pol_dump_fwd_policer_all(cli, 0, 0, nullptr);
    pol_dump_fwd_app_id_all(cli, 0, 0, nullptr);
  });
  text = std::regex_replace(text, std::regex("0x[0-9a-f]{9,}"), "PTR");
  expect_golden("dump/fwd_objects.ok", text);
  for (const char* policy : {"p", "q"}) forget_left_behind(sequence(policy, kApp, "v", 1));
}

}  // namespace
