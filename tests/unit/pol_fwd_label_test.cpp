// SPDX-License-Identifier: Apache-2.0
#include "policy/pol_fwd_label.h"

#include "support/forward_fixture.h"

namespace {

using FwdLabelTest = ForwardTest;

constexpr uint32_t kA = 0x0a000001;
constexpr uint32_t kB = 0x0a000002;
constexpr uint32_t kOther = 0x0a000009;

TEST_F(FwdLabelTest, ALabelSetHasTheTlocsWithTheirLabels) {
  sequence(1);
  host.labels = {{kA, 50}, {kB, 60}};
  auto label = [&] {
    host.asked.clear();
    take_queued();
    pol_fwd_upd_label(ctx, "p", POL_KIND_DATA, "v", 1);
    EXPECT_EQ(take_queued().size(), 1u);
    return labeled();
  };
  EXPECT_EQ(label(), "1@0:\n") << "takes old positions away";
  list_tloc("l", tloc4(kOther, 2)), list_tloc("l", tloc4(kB, 3)), list_tloc("l", tloc4(kA, 3));
  set_list(1, "l");
  set_vpn(1, 8);
  EXPECT_EQ(label(), "1@60: 10.0.0.9:2:2=0 10.0.0.2:3:2=60 10.0.0.1:3:2=50\n")
      << "the VPN's label is the first found";
  EXPECT_EQ(host.asked[1], "167772162:3:2 10.0.0.2:3:2 vpn 8 service 0");
  set_tloc(1, tloc4(kA, 4));
  EXPECT_EQ(label(), "1@50: 10.0.0.1:4:2=50\n") << "the set TLOC goes first";
  EXPECT_EQ(find(1)->fwd.tloc_label, 50u);
  t_tloc_id v6 = {KEL_AF_INET6, {}, 4, 1};
  v6.addr.v6[0] = 0x20;
  set_tloc(1, v6);
  EXPECT_EQ(label(), "1@0: [2000::]:4:1=0\n");
  EXPECT_EQ(host.asked[0], "0:4:1 [2000::]:4:1 vpn 8 service 0");
  EXPECT_EQ(find(1)->fwd.tloc_label, 0u) << "it has no label any more";
}

TEST_F(FwdLabelTest, TheFirstSixtyFourTlocsAreLabeled) {
  sequence(1);
  for (uint32_t i = 1; i <= 70; ++i) {
    list_tloc("l", tloc4(i));
    host.labels[i] = 100 + i;
  }
  set_list(1, "l");
  take_requests();
  pol_fwd_upd_label_set_entry(nullptr, ctx, find(1)->fwd.user);
  const auto requests = take_requests();
  ASSERT_EQ(requests.size(), 2u);
  const t_pol_label_set& set = requests[0].labels;
  EXPECT_EQ(set.count, uint32_t{POL_MAX_TLOC});
  EXPECT_EQ(set.tlocs[63].label, 164u);
  EXPECT_EQ(host.asked.size(), size_t{POL_MAX_TLOC}) << "nobody needs the others";
}

// Each row: what sequence 1 has, and whether a change of kA's label (color 3, VPN 8, service 4)
// concerns it, and whether its service is resolved for it.
TEST_F(FwdLabelTest, AChangeOfALabelConcernsWhoDependsOnIt) {
  enum Concern { kNot, kLabels, kResolves };
  list_tloc("has", tloc4(kB, 3)), list_tloc("has", tloc4(kA, 3, 1));
  list_tloc("color", tloc4(kA, 4)), list_tloc("other", tloc4(kOther, 3));
  const struct {
    const char* what;
    uint64_t vpn;
    uint32_t tloc;
    const char* list;
    uint16_t service;
    Concern concern;
  } rows[] = {
      {"nothing", 8, 0, nullptr, 0, kNot},
      {"its TLOC", 8, kA, nullptr, 0, kLabels},
      {"its TLOC, another VPN", 9, kA, nullptr, 0, kNot},
      {"its TLOC and service", 8, kA, nullptr, 4, kLabels},
      {"its TLOC, another service", 8, kA, nullptr, 5, kNot},
      {"another TLOC", 8, kOther, nullptr, 0, kNot},
      {"another TLOC, service", 8, kOther, nullptr, 4, kResolves},
      {"list with it, any encapsulation", 8, 0, "has", 0, kLabels},
      {"list with it in another color", 8, 0, "color", 0, kNot},
      {"list without it", 8, 0, "other", 0, kNot},
      {"list with it, service", 8, 0, "has", 4, kLabels},
      {"list without it, service", 8, 0, "other", 4, kResolves},
      {"service", 8, 0, nullptr, 4, kResolves},
      {"service, another VPN", 0, 0, nullptr, 4, kNot},
  };
  host.service = {result(tloc4(kB, 1), 70)};
  for (const auto& row : rows) {
    sequence(1), sequence(2);
    set_vpn(1, row.vpn);
    if (row.tloc != 0) set_tloc(1, tloc4(row.tloc, 9));
    if (row.list != nullptr) set_list(1, row.list);
    if (row.service != 0) set_service(1, row.service);
    const std::string before = tlocs(1);
    calls.count = 0;
    take_queued(), host.asked.clear();
    pol_fwd_eval_label(ctx, nullptr, kA, 3, 8, 4);
    EXPECT_EQ(labeled().substr(0, 2), row.concern == kNot ? "" : "1@") << row.what;
    EXPECT_EQ(calls.count, row.concern == kNot ? 0 : 1) << row.what;
    const bool asked = !host.asked.empty() && host.asked[0] == "0:0:0 10.0.0.1:3:0 vpn 8 service 4";
    EXPECT_EQ(asked, row.concern == kResolves) << row.what;
    EXPECT_EQ(tlocs(1), row.concern == kResolves ? "10.0.0.2:1:2=70/0 " : before) << row.what;
    pol_fwd_entry_find_and_delete(ctx, "p", POL_KIND_DATA, "v", 1);
    remove_tloc(2), set_service(2, 0, 0, 1);
  }
}

TEST_F(FwdLabelTest, PoliciesThatSetNothingArePassedOver) {
  sequence(1), sequence(2);
  set_tloc(1, tloc4(kA)), set_tloc(2, tloc4(kA));
  pol_fwd_eval_label(ctx, nullptr, kA, 1, 0, 0);
  EXPECT_EQ(labeled(), "1@0: 10.0.0.1:1:2=0\n2@0: 10.0.0.1:1:2=0\n");
  remove_tloc(1);
  pol_fwd_eval_label(ctx, nullptr, kA, 1, 0, 0);
  EXPECT_EQ(labeled(), "") << "sequence 1 spoke for the whole policy";
  calls.count = 0;
  pol_block_users_add_to_chg_list(ctx, find(1)->block);
  pol_fwd_eval_label(ctx, nullptr, kOther, 1, 0, 0);
  EXPECT_EQ(calls.count, 1) << "whoever is queued is told";
}

TEST_F(FwdLabelTest, WhereMemoryRunsOutTheNextPolicyIsLabeled) {
  block("q", POL_KIND_DATA);
  pol_fwd_vpn_find_or_create(ctx, "q", POL_KIND_DATA, "v");
  sequence(1), sequence(2), sequence(3, "q");
  host.service_label = 9;
  set_service(1, 4), set_service(2, 4);
  pol_fwd_entry_svc_upd(ctx, "q", POL_KIND_DATA, "v", 3, 4, 0, 0);
  pol_debug_set(1);
  for (int n = 1;; ++n) {
    take_requests(), seams::take_log();
    seams::Fail fail(n);
    pol_fwd_eval_label(ctx, nullptr, kA, 3, 0, 4);
    const bool hit = fail.hit();
    size_t sets = 0, fetches = 0;
    for (const Request& request : take_requests()) {
      (request.queue == pol::QUEUE_LABEL_SET ? sets : fetches) += 1;
    }
    const std::string log = seams::take_log();
    const bool tlocs_failed =
        log.find("Failed to allocate memory for fwd_tloc_entry\n") != log.npos;
    const bool item_failed = log.find("Failed to alloc memory for thread queue item\n") != log.npos;
    EXPECT_EQ(tlocs_failed || item_failed, hit) << n;
    if (!hit) {
      EXPECT_EQ(sets + fetches, 6u);
      break;
    }
    forgive(item_failed ? pol::MEM_THREAD_ITEM : pol::MEM_TLOC_ENTRY);
    if (item_failed) {
      EXPECT_EQ(sets + fetches, 5u) << n;
    } else {
      EXPECT_EQ(sets, fetches) << n;
      EXPECT_TRUE(sets == 1 || sets == 2) << n;
    }
  }
}

TEST_F(FwdLabelTest, ChangedTlocListsAreLabeledInOnePass) {
  sequence(1), sequence(2);
  set_list(1, "l"), set_list(2, "m");
  list_tloc("l", tloc4(kA, 3), 4);
  host.labels = {{kA, 50}};
  take_requests();
  calls.count = 0;
  take_queued();
  pol_config_update_tloc_list(nullptr, ctx);
  EXPECT_EQ(tlocs(1), "10.0.0.1:3:2=0/4 ");
  EXPECT_EQ(labeled(), "1@50: 10.0.0.1:3:2=50\n") << "only the list that changed";
  EXPECT_EQ(calls.count, 1);
  pol_config_update_tloc_list(nullptr, ctx);
  EXPECT_EQ(labeled(), "");

  // Set clauses are no actions: of a route policy, and of a data policy's default action.
  pol_entry_set_tloc_list_add(ctx, entry(block("r"), 1), "r", &changed);
  t_pol_entry* other = &block("p", POL_KIND_DATA)->default_action;
  pol_entry_match_preference_add(ctx, other, 1, &changed);  // where a sequence has its record
  pol_entry_set_tloc_list_add(ctx, other, "r", &changed);
  list_tloc("r", tloc4(kA));
  pol_config_update_tloc_list(nullptr, ctx);
  EXPECT_EQ(labeled(), "");
  EXPECT_EQ(pol_tloc_list_find(ctx, "r")->label_pending, 1);
}

// The action leaves the list in the middle of the walk over the list's users.
TEST_F(FwdLabelTest, AnActionWithoutMemoryLeavesItsListInThePass) {
  sequence(1), sequence(2);
  set_list(1, "l"), set_list(2, "l");
  list_tloc("l", tloc4(kA));
  take_requests();
  {
    seams::Fail fail(1);
    pol_config_update_tloc_list(nullptr, ctx);
    EXPECT_TRUE(fail.hit());
  }
  forgive(pol::MEM_TLOC_ENTRY);
  EXPECT_EQ(find(1)->set_flags, 0u);
  EXPECT_EQ(labeled(), "1@0:\n2@0: 10.0.0.1:1:2=0\n");
}

TEST_F(FwdLabelTest, WhatIsNotThereHasNoLabels) {
  t_pol_entry* e = sequence(1);
  pol_fwd_entry_dns_app_list_upd(ctx, "p", POL_KIND_DATA, "v", 1, "dns");
  t_pol_fwd_user* user = e->fwd.user;
  pol_fwd_entry_find_and_delete(ctx, "p", POL_KIND_DATA, "v", 1);
  pol_fwd_upd_label_set_entry(nullptr, ctx, user);  // outlived its sequence
  pol_fwd_upd_label_set_entry(nullptr, ctx, nullptr);
  EXPECT_EQ(pol_fwd_upd_set_internal_tloc_list(ctx, user, nullptr), uint32_t{POL_EINVAL});
  EXPECT_EQ(labeled(), "");
  pol_dns_app_list_user_remove(ctx, pol_app_list_first(ctx), user);
}

}  // namespace
