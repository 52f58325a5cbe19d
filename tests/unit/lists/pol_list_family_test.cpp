// SPDX-License-Identifier: Apache-2.0
// What each list with elements does its own way.
#include <csignal>

#include "support/list_families.h"
#include "support/seams.h"

namespace {

using ListFamilyTest = PolicyTest;

t_pol_list_registration site_registration(int* told) {
  t_pol_list_registration record = {};
  snprintf(record.name, sizeof record.name, "s");
  record.list_type = POL_LIST_SITE;
  record.change = [](t_pol_list_user*, void* arg) { ++*static_cast<int*>(arg); };
  record.arg = told;
  return record;
}

TEST_F(ListFamilyTest, OneOutsideUserASiteListAndTheFirstWins) {
  int first = 0;
  int second = 0;
  auto record = site_registration(&first);
  auto later = site_registration(&second);
  t_pol_list_user* user = pol_list_register(&record);
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(pol_list_register(&later), user);
  for (int i = 0; i < 2; ++i) pol_site_list_add_entry(ctx, "s", 5, 7);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(pol_list_site_match(user, 6), 1);
  EXPECT_EQ(pol_list_site_match(user, 8) + pol_list_site_match(nullptr, 6), 0);
  pol_site_list_del_entry(ctx, "s", 5, 7);
  EXPECT_EQ(first, 2);
  pol_site_list_cfg_del(ctx, "s");
  EXPECT_NE(SiteFamily::find(ctx, "s"), nullptr);
  pol_list_unregister(user);
  EXPECT_EQ(SiteFamily::find(ctx, "s"), nullptr);
  pol_list_unregister(nullptr);
  record.list_type = POL_LIST_PREFIX;
  EXPECT_EQ(pol_list_register(&record), nullptr);
}

TEST_F(ListFamilyTest, OutsideUserMayDeleteTheListThatToldIt) {
  int told = 0;
  auto record = site_registration(&told);
  record.change = [](t_pol_list_user* user, void* arg) {
    ++*static_cast<int*>(arg);
    pol_site_list_cfg_del(g_pol_ctx_p, "s");
    pol_list_unregister(user);
  };
  pol_list_register(&record);
  pol_site_list_add_entry(ctx, "s", 1, 1);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(SiteFamily::find(ctx, "s"), nullptr);
}

TEST_F(ListFamilyTest, OutsideUserOutlivesTheContext) {
  auto record = site_registration(nullptr);
  t_pol_list_user* user = pol_list_register(&record);
  pol_destroy();
  EXPECT_EQ(pol_list_site_match(user, 1), 0);
  pol_list_unregister(user);  // has no list to leave
  init();
  pol_free(user, pol::MEM_LIST_USER);
}

TEST_F(ListFamilyTest, FailedOutsideUserLeavesTheListEmpty) {
  UncountedFailures forgiven(pol::MEM_LIST_USER);
  seams::Fail none(2);
  EXPECT_EQ(pol_site_list_user_add(ctx, "s", nullptr, nullptr), nullptr);
  EXPECT_NE(SiteFamily::find(ctx, "s"), nullptr);
}

TEST_F(ListFamilyTest, VpnListsMarkThemselvesChanged) {
  pol_vpn_list_add_entry(ctx, "v", 1, 4294967295u);
  t_vpn_list* list = VpnFamily::find(ctx, "v");
  EXPECT_EQ(list->changed, 1);
  auto marks = [&](auto act) {
    list->changed = 0;
    act();
    return list->changed == 1;
  };
  EXPECT_FALSE(marks([&] { pol_vpn_list_add_entry(ctx, "v", 1, 4294967295u); }));
  EXPECT_TRUE(marks([&] { pol_vpn_list_del_entry(ctx, "v", 9, 9); })) << "a missed delete does";
  EXPECT_TRUE(marks([&] { pol_vpn_list_add_entry(ctx, "v", 2, 3); }));
  t_pol_entry* e = entry(block("p"), 1);
  pol_entry_match_vpn_list_add(ctx, e, "v", &changed);
  EXPECT_FALSE(marks([&] { pol_vpn_list_cfg_del(ctx, "v"); }));
}

TEST_F(ListFamilyTest, VpnListsTellMatchActionAndForwardingUsersInOrder) {
  t_pol_block* d = block("data", POL_KIND_DATA);
  t_pol_fwd_vpn_entry node = {};
  node.block = d;
  pol_vpn_list_fwd_pol_user_add(ctx, "v", &node);
  pol_entry_set_vpn_list_add(ctx, entry(block("action"), 1), "v", &changed);
  pol_entry_match_vpn_list_add(ctx, entry(block("match"), 1), "v", &changed);
  std::vector<int> order;
  Calls calls[3];
  const char* policies[] = {"data", "action", "match"};
  for (uint32_t i = 0; i < 3; ++i) {
    calls[i].order = &order;
    calls[i].id = static_cast<int>(i);
    add_user("u", policies[i], &calls[i], POL_DIR_OUT + i, i == 0 ? POL_KIND_DATA : POL_KIND_ROUTE);
  }
  pol_vpn_list_add_entry(ctx, "v", 1, 2);
  EXPECT_EQ(order, (std::vector<int>{2, 1, 0}));
  std::string text =
      printed([&](t_cli_user_ctx* cli) { pol_dump_vpn_list(VpnFamily::find(ctx, "v"), cli); });
  EXPECT_NE(text.find("\n    vpn-id: 1-2\nend \n\n  User: match\n  User: data"), std::string::npos)
      << text;
  pol_vpn_list_cfg_del(ctx, "v");
  pol_block_find_and_delete(ctx, "match", POL_KIND_ROUTE, &changed);
  pol_block_find_and_delete(ctx, "action", POL_KIND_ROUTE, &changed);
  EXPECT_NE(VpnFamily::find(ctx, "v"), nullptr);
  EXPECT_EQ(pol_vpn_list_fwd_pol_user_remove(ctx, node.vpn_list, &node), POL_OK);
  EXPECT_EQ(VpnFamily::find(ctx, "v"), nullptr);
  EXPECT_EQ(pol_vpn_list_fwd_pol_user_remove(ctx, nullptr, &node), POL_EINVAL);
}

TEST_F(ListFamilyTest, TlocsAreOverwrittenAndLeaveLabelsPending) {
  t_tloc_id tloc = tloc4(0x0a000001);
  pol_tloc_list_add_entry(ctx, "t", &tloc, 5);
  t_tloc_list* list = pol_tloc_list_find(ctx, "t");
  EXPECT_EQ(list->label_pending, 0) << "the add that makes the list";
  pol_tloc_list_add_entry(ctx, "t", &tloc, 9);
  EXPECT_EQ(list->label_pending, 1);
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc)->preference, 9u);
  tloc.addr.v6[9] = 0x77;  // beyond an IPv4 address
  EXPECT_NE(pol_tloc_list_find_entry(ctx, "t", &tloc), nullptr);
  // Who sets from the list is told, as who matches on it.
  Calls calls;
  add_user("u", "p", &calls);
  pol_entry_set_tloc_list_add(ctx, entry(block("p"), 1), "t", &changed);
  take_queued();
  pol_tloc_list_add_entry(ctx, "t", &tloc, 9);
  EXPECT_EQ(calls.count, 1);
  list->changed = list->label_pending = 0;
  t_tloc_id absent = tloc4(7);
  pol_tloc_list_del_entry(ctx, "t", &absent);
  EXPECT_EQ(list->changed, 1);
  EXPECT_EQ(list->label_pending, 0);
  pol_tloc_list_del_entry(ctx, "t", &tloc);
  EXPECT_EQ(list->label_pending, 1);
}

// 0/0 on bounds takes every family, and so lies elsewhere than 0/0 alone: an overwrite moves it.
TEST_F(ListFamilyTest, AFailedOverwriteLeavesThePrefixAsItWas) {
  bool hit = true;
  for (int nth = 1; hit; ++nth) {
    for (uint32_t op : {POL_PFX_EQ, POL_PFX_LE}) {
      t_pol_pfx_record record = {op, prefix4(0, 0), 0, 24};
      ASSERT_EQ(pol_pfx_list_entry_add(ctx, "p", &record), POL_OK);
      const pol::PfxIndex& index = PfxFamily::find(ctx, "p")->index;
      record.op = POL_PFX_EQ + POL_PFX_LE - op;
      seams::Fail fail(nth);
      const uint32_t status = pol_pfx_list_entry_add(ctx, "p", &record);
      hit = fail.hit();
      EXPECT_EQ(status, hit ? POL_ENOMEM : POL_OK);
      EXPECT_EQ(index.matches(prefix4(0x01000000, 8)), (op == POL_PFX_LE) == hit);
      EXPECT_TRUE(index.matches(prefix4(0, 0)));
    }
    pol_pfx_list_cfg_del(ctx, "p");
  }
}

TEST_F(ListFamilyTest, AnOperatorBeyondAByteIsNoneOfThoseKnown) {
  for (int overwritten = 0; overwritten < 2; ++overwritten) {
    t_pol_pfx_record record = pfx_record(1, 256 + POL_PFX_EQ);
    pol_pfx_list_entry_add(ctx, "p", &record);
    EXPECT_FALSE(PfxFamily::find(ctx, "p")->index.matches(record.prefix));
  }
}

using ListFamilyDeathTest = PolicyTest;

TEST_F(ListFamilyDeathTest, StoredAddressesOfAnUnknownFamilyAbortALookUp) {
  t_tloc_id tloc = tloc4(1);
  pol_tloc_list_add_entry(ctx, "t", &tloc, 0);
  tloc.family = 7;
  EXPECT_EQ(pol_tloc_list_find_entry(ctx, "t", &tloc), nullptr) << "none of its family is there";
  EXPECT_EQ(pol_tloc_list_add_entry(ctx, "t", &tloc, 0), POL_OK);
  EXPECT_EXIT(pol_tloc_list_find_entry(ctx, "t", &tloc), ::testing::KilledBySignal(SIGABRT), "");
  t_pol_pfx_record record = pfx_record(1);
  record.prefix.addr.family = 7;
  EXPECT_EQ(pol_pfx_list_entry_add(ctx, "p", &record), POL_OK);
  EXPECT_EXIT(pol_pfx_list_entry_add(ctx, "p", &record), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
