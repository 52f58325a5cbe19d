// SPDX-License-Identifier: Apache-2.0
//
// policy_fixture.h - a live context for a test, and short words for what tests say often. Tearing
// down checks that every counted allocation was freed.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "core/pol_context_internal.h"
#include "policy/policy.h"

// A sequence in one line as its dump tells it, without pointers and words of flags.
std::string shown(t_pol_entry* entry);

class PolicyTest : public ::testing::Test {
 public:
  template <class Dump>
  static std::string printed(Dump dump) {
    std::string text;
    t_cli_user_ctx cli = {[](void* arg, const char* part, size_t length) {
                            static_cast<std::string*>(arg)->append(part, length);
                            return 0;
                          },
                          &text};
    dump(&cli);
    return text;
  }

 protected:
  void SetUp() override {
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) outstanding_[i] = outstanding(i);
    init();
  }

  void TearDown() override {
    pol_destroy();
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) {
      EXPECT_EQ(current(i), 0u) << "memory type " << i;
    }
    pol_debug_set(0);
  }

  void init() {
    t_pol_callbacks callbacks = {};
    ctx = pol_init(&callbacks);
    ASSERT_NE(ctx, nullptr);
  }

  // A failed allocation is counted and never freed: takes such counts of a type back.
  class UncountedFailures {
   public:
    explicit UncountedFailures(size_t type) : type_(type), outstanding_(outstanding(type)) {}
    ~UncountedFailures() {
      g_pol_mem_info[type_].frees = g_pol_mem_info[type_].allocs - outstanding_;
    }
    UncountedFailures(const UncountedFailures&) = delete;
    UncountedFailures& operator=(const UncountedFailures&) = delete;

   private:
    size_t type_;
    uint64_t outstanding_;
  };

  // The match clauses that name lists of their own.
  static constexpr auto kListAdds = {pol_entry_match_site_list_add, pol_entry_match_tloc_list_add,
                                     pol_entry_match_pfx_list_add, pol_entry_match_vpn_list_add,
                                     pol_entry_match_color_list_add};

  uint64_t lists_there() const {
    uint64_t count = 0;
    for (size_t type : {pol::MEM_VPN_LIST, pol::MEM_SITE_LIST, pol::MEM_TLOC_LIST,
                        pol::MEM_PFX_LIST, pol::MEM_COLOR_LIST}) {
      count += current(type);
    }
    return count;
  }

  // Objects of a type that the test has made and that are still there.
  uint64_t current(size_t type) const { return outstanding(type) - outstanding_[type]; }

  static uint64_t outstanding(size_t type) {
    const t_pol_mem_info& row = g_pol_mem_info[type];  // which the worker counts in too
    return __atomic_load_n(&row.allocs, __ATOMIC_RELAXED) -
           __atomic_load_n(&row.frees, __ATOMIC_RELAXED);
  }

  // What a user's callback does besides being counted: user_arg points at one of these.
  struct Calls {
    int count = 0;
    void (*also)(t_pol_user*, Calls*) = nullptr;
    t_pol_ctx* ctx = nullptr;
    t_pol_user* other = nullptr;
    std::vector<int>* order = nullptr;
    int id = 0;
  };

  static void called(t_pol_user* user, uint64_t arg) {
    auto* calls = reinterpret_cast<Calls*>(arg);
    ++calls->count;
    if (calls->order != nullptr) calls->order->push_back(calls->id);
    if (calls->also != nullptr) calls->also(user, calls);
  }

  t_pol_user* add_user(const char* name, const char* policy, Calls* calls,
                       uint32_t direction = POL_DIR_OUT, uint32_t kind = POL_KIND_ROUTE,
                       t_pol_resolve_cb resolve = nullptr) {
    t_pol_registration record = {};
    snprintf(record.user_name, sizeof record.user_name, "%s", name);
    snprintf(record.policy_name, sizeof record.policy_name, "%s", policy);
    record.kind = kind;
    record.direction = direction;
    record.change = calls != nullptr ? called : nullptr;
    record.resolve = resolve;
    record.user_arg = reinterpret_cast<uint64_t>(calls);
    return pol_register(&record);
  }

  t_pol_block* block(const char* name, uint32_t kind = POL_KIND_ROUTE) {
    return pol_block_find_or_create(ctx, name, kind, &changed);
  }

  t_pol_entry* entry(t_pol_block* policy, uint32_t sequence, uint32_t match_type = POL_MATCH_ROUTE,
                     uint32_t action = POL_ACCEPT) {
    t_pol_entry* made = pol_entry_find_or_create(ctx, policy, sequence, &changed);
    pol_entry_match_add(ctx, policy, made, match_type, &changed);
    pol_entry_action_add(ctx, made, action, &changed);
    return made;
  }

  // Empties the change list and returns who was on it, by user name.
  std::vector<std::string> take_queued() {
    std::vector<std::string> names;
    while (t_pol_user* user = ctx->change_list.front()) {
      names.emplace_back(user->name);
      pol_user_chg_list_delete(ctx, user);
    }
    return names;
  }

  // Whether `act` says that it changed something.
  template <class Act>
  bool changes(Act act) {
    uint8_t flag = 0;
    act(&flag);
    return flag != 0;
  }

  // The same, and users must be queued exactly then.
  template <class Act>
  bool tells(Act act) {
    bool flag = changes(act);
    EXPECT_EQ(!take_queued().empty(), flag);
    return flag;
  }

  static t_ipprefix prefix4(uint32_t address, uint8_t length) {
    t_ipprefix prefix = {};
    prefix.addr.family = KEL_AF_INET;
    prefix.addr.addr.v4 = address;
    prefix.len = length;
    return prefix;
  }

  static t_tloc_id tloc4(uint32_t address, uint8_t color = 1, uint8_t encap = 2) {
    t_tloc_id tloc = {};
    tloc.family = KEL_AF_INET;
    tloc.addr.v4 = address;
    tloc.color = color;
    tloc.encap = encap;
    return tloc;
  }

  t_pol_ctx* ctx = nullptr;
  uint8_t changed = 0;

 private:
  std::array<uint64_t, POL_MEM_TYPES> outstanding_ = {};
};
