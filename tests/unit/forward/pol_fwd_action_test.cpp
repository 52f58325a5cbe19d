// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <functional>

#include "support/forward_fixture.h"

namespace {

using FwdActionTest = ForwardTest;

constexpr uint32_t kA = 0x0a000001;
constexpr uint32_t kB = 0x0a000002;

t_tloc_id tloc6(uint8_t last) {
  t_tloc_id tloc = {KEL_AF_INET6, {}, 0, 0};
  tloc.addr.v6[15] = last;
  return tloc;
}

TEST_F(FwdActionTest, TlocKeepsWhatIsNotGiven) {
  sequence(1);
  const struct {
    t_tloc_id tloc;
    uint8_t encap_given;
    std::string stored;
  } steps[] = {
      {tloc4(kA, 3, 2), 0, "10.0.0.1:3:0"}, {tloc4(0, 0, 2), 1, "10.0.0.1:3:2"},
      {tloc4(0, 5, 1), 0, "10.0.0.1:5:2"},  {tloc6(0), 0, "10.0.0.1:5:2"},
      {tloc6(9), 0, "[::9]:5:2"},           {tloc4(kB, 0, 0), 1, "10.0.0.2:5:0"},
      {{77, {1}, 4, 0}, 0, "10.0.0.2:4:0"},
  };
  for (const auto& step : steps) {
    set_tloc(1, step.tloc, step.encap_given);
    EXPECT_EQ(printed_tloc(find(1)->fwd.tloc), step.stored);
    EXPECT_EQ(find(1)->set_flags, POL_FWD_SET_F_TLOC);
    EXPECT_EQ(take_queued().size(), 1u) << step.stored;
  }
  remove_tloc(1);
  EXPECT_EQ(find(1)->set_flags, 0u);
  EXPECT_FALSE(find(1)->fwd.tloc.family != 0 || find(1)->fwd.tloc.color != 0);
  EXPECT_EQ(take_queued().size(), 1u);
}

TEST_F(FwdActionTest, OneSequenceTakesThePolicysFlagsFromAll) {
  sequence(1), sequence(2);
  const uint8_t& sets = find(1)->block->sets;
  auto both = [&](auto set, auto take) {
    set(1), set(2), take(1);
    EXPECT_EQ(sets, 0);
    set(2);
  };
  both([&](int n) { set_tloc(n, tloc4(kA, n)); }, [&](int n) { remove_tloc(n); });
  EXPECT_EQ(sets, POL_SETS_FWD_TLOC);
  remove_tloc(2);
  both([&](int n) { set_service(n, 4); }, [&](int n) { set_service(n, 0, 0, 1); });
  EXPECT_EQ(sets, POL_SETS_FWD_SERVICE);
  set_service(2, 0, 0, 1);
  // The list that sequence 2 has already says nothing new.
  set_list(1, "l"), set_list(2, "l"), set_list(1, nullptr), set_list(2, "l");
  EXPECT_EQ(sets, 0);
  set_list(1, "m");
  EXPECT_EQ(sets, POL_SETS_FWD_TLOC_LIST);
}

TEST_F(FwdActionTest, ServiceBecomesTlocs) {
  sequence(1);
  set_vpn(1, 4294967296u);
  take_queued();
  host.service = {result(tloc4(kA, 3, 2), 100, 7), result(tloc6(1), 101)};
  set_service(1, 4, 1);
  EXPECT_EQ(host.asked,
            std::vector<std::string>{"0:0:0 unknown:0:0 vpn 4294967296 service 4 local"});
  EXPECT_EQ(tlocs(1), "10.0.0.1:3:2=100/7 [::1]:0:0=101/0 ");
  EXPECT_EQ(find(1)->set_flags, POL_FWD_SET_F_SERVICE);
  EXPECT_EQ(take_queued().size(), 1u);

  // Resolved again: although a TLOC is set, whose address is zero; then the one TLOC that the label
  // belongs to, nothing, more than there is room for.
  set_tloc(1, tloc4(0, 3));
  set_service(1, 0);
  EXPECT_EQ(tlocs(1), "10.0.0.1:3:2=100/7 [::1]:0:0=101/0 ");
  remove_tloc(1);
  host.service.clear();
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

  take_queued();
  set_service(1, 0, 1, 1);
  EXPECT_EQ(find(1)->fwd.service + find(1)->fwd.service_local, 0);
  EXPECT_EQ(take_queued().size(), 1u);
  set_service(1, 0);
  EXPECT_TRUE(take_queued().empty()) << "no service in the policy";
}

TEST_F(FwdActionTest, TlocListIsCopiedWhenItIsNamed) {
  t_pol_entry* e = sequence(1);
  list_tloc("l", tloc4(kB), 2);
  list_tloc("l", tloc4(kA), 1);
  take_queued();
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_fwd_entry_set_tloc_list_add(ctx, e, "l", c); }));
  EXPECT_EQ(tlocs(1), "10.0.0.2:1:2=0/2 10.0.0.1:1:2=0/1 ");
  list_tloc("l", tloc4(3));
  EXPECT_EQ(calls.count, 1) << "the policy is told of its list";
  EXPECT_FALSE(tells([&](uint8_t* c) {
    EXPECT_EQ(pol_fwd_entry_set_tloc_list_add(ctx, e, "l", c), e->fwd.user);
  }));
  EXPECT_EQ(tlocs(1), "10.0.0.2:1:2=0/2 10.0.0.1:1:2=0/1 ") << "not copied again";
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_fwd_entry_set_tloc_list_add(ctx, e, "m", c); }));
  EXPECT_EQ(tlocs(1), "");
  list_tloc("l", tloc4(4));
  EXPECT_EQ(calls.count, 1) << "left";
  EXPECT_TRUE(tells([&](uint8_t* c) { pol_fwd_entry_set_tloc_list_delete(ctx, e, c); }));
  EXPECT_EQ(pol_tloc_list_find(ctx, "m"), nullptr);
  EXPECT_FALSE(tells([&](uint8_t* c) { pol_fwd_entry_set_tloc_list_delete(ctx, e, c); }));
  EXPECT_EQ(e->set_flags, 0u);
}

// A list that cannot be had: the sequence goes on with the old one's TLOCs, without being told of
// its changes, and forgets it when it goes.
TEST_F(FwdActionTest, StaleTlocListsAreNeverReadAfterTheyAreFreed) {
  t_pol_entry* e = sequence(1);
  list_tloc("l", tloc4(kA));
  set_list(1, "l");
  {
    seams::Fail fail(1);
    EXPECT_EQ(pol_fwd_entry_set_tloc_list_add(ctx, e, "m", &changed), nullptr);
    EXPECT_EQ(changed, 0);
  }
  forgive(pol::MEM_TLOC_LIST);
  take_queued();
  EXPECT_EQ(e->set_flags, POL_FWD_SET_F_TLOC_LIST);
  EXPECT_EQ(tlocs(1), "10.0.0.1:1:2=0/0 ");
  calls.count = 0;
  list_tloc("l", tloc4(kB));
  EXPECT_EQ(calls.count, 0);
  pol_tloc_list_cfg_del(ctx, "l");
  EXPECT_EQ(e->fwd.user->tloc_list.list, nullptr);
  set_list(1, "m");
  EXPECT_STREQ(e->fwd.user->tloc_list.list->name, "m");
  pol_fwd_entry_find_and_delete(ctx, "p", POL_KIND_DATA, "v", 1);
  EXPECT_EQ(pol_tloc_list_find(ctx, "m"), nullptr);
}

TEST_F(FwdActionTest, NoAllocationThatFailsLeavesHalfAnAction) {
  t_pol_entry* e = sequence(1);
  list_tloc("l", tloc4(kA)), list_tloc("l", tloc4(kB));
  int n = 0;
  for (bool hit = true; hit;) {
    seams::Fail fail(++n);
    ASSERT_NE(pol_fwd_entry_set_tloc_list_add(ctx, e, "l", &changed), nullptr);
    hit = fail.hit();
    if (hit) forgive(pol::MEM_TLOC_ENTRY);
    // Either with the whole list or without one.
    EXPECT_EQ(tlocs(1), hit ? "" : "10.0.0.1:1:2=0/0 10.0.0.2:1:2=0/0 ");
    EXPECT_EQ(e->set_flags, hit ? 0u : POL_FWD_SET_F_TLOC_LIST);
    EXPECT_EQ(e->fwd.user->tloc_list.list == nullptr, hit);
  }
  EXPECT_EQ(n, 3);
}

TEST_F(FwdActionTest, ServicesWithoutMemoryKeepTheTlocsThatTheyGot) {
  sequence(1);
  pol_debug_set(1);
  auto failing = [&](int nth) {
    take_queued(), seams::take_log();
    seams::Fail fail(nth);
    set_service(1, 4);
    EXPECT_TRUE(fail.hit());
    forgive(pol::MEM_TLOC_ENTRY);
    return tlocs(1);
  };
  host.service.assign(3, result(tloc4(kB), 0));
  EXPECT_EQ(failing(2), "10.0.0.2:1:2=0/0 ");
  EXPECT_EQ(seams::take_log(), "");
  EXPECT_EQ(take_queued().size(), 1u);
  host.service.clear();
  host.service_label = 9;
  EXPECT_EQ(failing(1), "");
  EXPECT_NE(seams::take_log().find("191 pol_fwd_entry_svc_upd["), std::string::npos);
  EXPECT_TRUE(take_queued().empty());
}

using FwdActionDeathTest = FwdActionTest;

TEST_F(FwdActionDeathTest, OtherKindsOfPolicyEndTheProcess) {
  constexpr uint32_t kRoute = POL_KIND_ROUTE, kPerf = POL_KIND_PERF_ROUTE;
  const t_tloc_id tloc = tloc4(kA);
  t_pol_entry* fallback = &block("a", kPerf)->default_action;
  pol_fwd_vpn_find_or_create(ctx, "a", kPerf, "v");
  pol_fwd_entry_tloc_upd(ctx, "a", kPerf, "v", 1, 0, nullptr);  // not there: nothing
  pol_fwd_entry_find_or_create(ctx, "a", kPerf, "v", 1);
  t_pol_entry* route = entry(block("r"), 1);
  const std::function<void()> calls[] = {
      [&] { pol_fwd_entry_tloc_upd(ctx, "a", kPerf, "v", 1, 0, nullptr); },
      [&] { pol_fwd_entry_tloc_upd(ctx, "a", kPerf, "v", 1, 0, &tloc); },
      [&] { pol_fwd_entry_tloc_list_upd(ctx, "x", kPerf, "v", 1, "l"); },
      [&] { pol_fwd_entry_svc_upd(ctx, "x", kRoute, "v", 1, 4, 0, 0); },
      [&] { pol_fwd_entry_vpn_upd(ctx, "x", 5, "v", 1, 1); },
      [&] { pol_fwd_upd_label(ctx, "x", kRoute, "v", 1); },
      // Sequences without roles: a route policy's, and the default action of any.
      [&] { pol_fwd_entry_set_policer_add(ctx, route, "l", &changed); },
      [&] { pol_fwd_entry_set_tloc_list_add(ctx, fallback, "l", &changed); },
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    EXPECT_EXIT(calls[i](), ::testing::KilledBySignal(SIGSEGV), "") << i;
  }
}

}  // namespace
