// SPDX-License-Identifier: Apache-2.0
#include "policy/pol_fwd_label.h"

#include "support/forward_fixture.h"

namespace {

using FwdLabelTest = ForwardTest;

constexpr uint32_t kA = 0x0a000001;
constexpr uint32_t kB = 0x0a000002;

TEST_F(FwdLabelTest, AnAnswerThatIsShortOrLongIsTakenAsFarAsItGoes) {
  sequence(1);
  set_service(1, 4);
  host.service_label = 55, host.service_tloc = tloc4(kB, 1, 1);
  set_service(1, 0);
  EXPECT_EQ(tlocs(1), "10.0.0.2:1:1=55/0 ");
  host.service_label = 0;
  set_service(1, 0);
  EXPECT_EQ(tlocs(1), "");
  host.service.assign(POL_MAX_TLOC, result(tloc4(kA), 1));
  host.extra_count = 1000000;
  set_service(1, 0);
  EXPECT_EQ(current(pol::MEM_TLOC_ENTRY), uint64_t{POL_MAX_TLOC});
  host.silent = true;
  set_service(1, 0);
  EXPECT_EQ(tlocs(1), "");
  ctx->resolve_service = nullptr;
  set_service(1, 4);
  EXPECT_EQ(tlocs(1), "");
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

TEST_F(FwdLabelTest, WhatIsNotThereHasNoLabels) {
  t_pol_entry* e = sequence(1);
  pol_fwd_entry_dns_app_list_upd(ctx, "p", POL_KIND_DATA, "v", 1, "dns");
  t_pol_fwd_user* user = e->fwd.user;
  pol_fwd_entry_find_and_delete(ctx, "p", POL_KIND_DATA, "v", 1);
  pol_fwd_upd_label_set_entry(nullptr, ctx, user);  // outlived its sequence
  pol_fwd_upd_label_set_entry(nullptr, ctx, nullptr);
  EXPECT_EQ(pol_fwd_upd_set_internal_tloc_list(ctx, user, nullptr), uint32_t{POL_EINVAL});
  EXPECT_TRUE(take_requests().empty());
  pol_dns_app_list_user_remove(ctx, pol_app_list_first(ctx), user);
}

}  // namespace
