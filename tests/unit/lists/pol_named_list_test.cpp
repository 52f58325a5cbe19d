// SPDX-License-Identifier: Apache-2.0
// What the named lists share, and what those with elements and those without share.
#include <csignal>

#include "support/list_families.h"
#include "support/seams.h"

namespace {

template <class Family>
class NamedListTest : public PolicyTest {
 protected:
  // A policy of one accepting sequence that matches on the list, and its user.
  t_pol_entry* use(const char* policy, const char* list) {
    t_pol_entry* e = sequence(policy);
    EXPECT_NE(Family::clause(ctx, e, list, &changed), nullptr);
    return e;
  }

  t_pol_entry* sequence(const char* policy) {
    t_pol_block* made = block(policy, Family::kKind);
    if (Family::kKind == POL_KIND_ROUTE) return entry(made, 10);
    pol_fwd_vpn_find_or_create(ctx, policy, Family::kKind, "v");
    return pol_fwd_entry_find_or_create(ctx, policy, Family::kKind, "v", 10);
  }

  // Names a list that cannot be made.
  void fail_to_rename(t_pol_entry* e) {
    const uint64_t lists = g_pol_mem_info[Family::kListMem].allocs;
    seams::Fail none(1);
    EXPECT_EQ(Family::clause(ctx, e, "new", &changed), nullptr);
    g_pol_mem_info[Family::kListMem].allocs = lists;
  }

  void delete_sequence(const char* policy) {
    if (Family::kKind == POL_KIND_ROUTE) {
      pol_entry_find_and_delete(ctx, block(policy), 10, &changed);
    } else {
      pol_fwd_entry_find_and_delete(ctx, policy, Family::kKind, "v", 10);
    }
  }

  // Something besides a policy under test that keeps a list, and its end.
  void keep(const char* list) {
    if (Family::kKind == POL_KIND_ROUTE) {
      Family::add(ctx, list, 1);
    } else {
      use("keeper", list);
    }
  }
  void let_go(const char* list) {
    if (Family::kKind == POL_KIND_ROUTE) {
      Family::cfg_del(ctx, list);
    } else {
      delete_sequence("keeper");
    }
  }
};

template <class Family>
class ElementListTest : public NamedListTest<Family> {
 protected:
  uint32_t evaluate(t_pol_user* user, uint32_t number) {
    t_pol_route_attr attr = {};
    t_pol_route_query query;
    pol_pre_execute(&query, 1);
    query.match_type = POL_MATCH_ROUTE;
    query.attr = &attr;
    Family::ask(&query, &attr, number);
    return pol_execute(user, &query);
  }
};

const pol::RangeSet::Queue& elements_of(const pol::RangeSet& set) { return set.in_order(); }

template <class Queue>
const Queue& elements_of(const Queue& queue) {
  return queue;
}

using Families =
    ::testing::Types<SiteFamily, VpnFamily, TlocFamily, ColorFamily, PfxFamily, AppFamily,
                     FwdPfxFamily, FwdPfx6Family, SlaClassFamily, PolicerFamily, AppIdFamily>;
using ElementFamilies = ::testing::Types<SiteFamily, VpnFamily, TlocFamily, ColorFamily, PfxFamily>;
using ObjectFamilies = ::testing::Types<AppFamily, FwdPfxFamily, FwdPfx6Family, SlaClassFamily,
                                        PolicerFamily, AppIdFamily>;
TYPED_TEST_SUITE(NamedListTest, Families);
TYPED_TEST_SUITE(ElementListTest, ElementFamilies);

TYPED_TEST(NamedListTest, FirstUserMakesAndLastUserFreesTheNode) {
  t_pol_ctx* ctx = this->ctx;
  for (t_pol_entry* e : {this->use("p", "l"), this->use("q", "l")}) {
    EXPECT_NE(TypeParam::find(ctx, "l"), nullptr);
    TypeParam::drop(ctx, e, &this->changed);
  }
  EXPECT_EQ(TypeParam::find(ctx, "l"), nullptr);
  EXPECT_EQ(TypeParam::cfg_del(ctx, "absent"), POL_OK);
}

TYPED_TEST(ElementListTest, NodeLivesAsLongAsElementsOrUsers) {
  t_pol_ctx* ctx = this->ctx;
  auto there = [ctx] { return TypeParam::find(ctx, "l") != nullptr; };
  TypeParam::add(ctx, "l", 1);
  TypeParam::del(ctx, "l", 1);
  EXPECT_TRUE(there()) << "the last element's deletion keeps the node";
  TypeParam::cfg_del(ctx, "l");
  EXPECT_FALSE(there());
  TypeParam::add(ctx, "l", 1);
  t_pol_entry* e = this->use("p", "l");
  TypeParam::cfg_del(ctx, "l");
  ASSERT_TRUE(there()) << "kept, empty, for its user";
  EXPECT_TRUE(TypeParam::find(ctx, "l")->entries.empty());
  TypeParam::add(ctx, "l", 2);
  TypeParam::drop(ctx, e, &this->changed);
  EXPECT_TRUE(there()) << "kept for its element";
  EXPECT_EQ(TypeParam::del(ctx, "absent", 1), POL_OK);
}

TYPED_TEST(ElementListTest, ChangesNotifyUsersOnceAndMissesDoNot) {
  t_pol_ctx* ctx = this->ctx;
  typename PolicyTest::Calls calls;
  t_pol_user* user = this->add_user("u", "p", &calls);
  this->use("p", "l");
  pol_user_chg_list_notify_all(ctx);
  calls.count = 0;

  TypeParam::add(ctx, "l", 1);
  EXPECT_EQ(calls.count, 1);
  TypeParam::add(ctx, "l", 1);
  EXPECT_EQ(calls.count, TypeParam::kRepeatNotifies ? 2 : 1);
  EXPECT_EQ(this->current(TypeParam::kEntryMem), 1u);
  calls.count = 0;
  TypeParam::del(ctx, "l", 2);
  TypeParam::del(ctx, "other", 1);
  EXPECT_EQ(calls.count, 0);
  TypeParam::del(ctx, "l", 1);
  EXPECT_EQ(calls.count, 1);

  TypeParam::add(ctx, "l", 3);
  calls.count = 0;
  TypeParam::cfg_del(ctx, "l");
  EXPECT_EQ(calls.count, 0) << "deleting the configuration tells nobody";
  EXPECT_EQ(this->evaluate(user, 3), POL_REJECT);
}

TYPED_TEST(NamedListTest, NamesAreCutAtTheirField) {
  std::string name(70, 'n');
  TypeParam::add(this->ctx, name.c_str(), 1);
  auto* list = TypeParam::find(this->ctx, name.substr(0, 63).c_str());
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(strlen(list->head.name), 63u);
  std::vector<char> field(POL_LIST_NAME_SIZE, 'n');
  EXPECT_EQ(TypeParam::find(this->ctx, field.data()), list);
}

TYPED_TEST(NamedListTest, NamingAnotherListMovesTheRegistration) {
  t_pol_ctx* ctx = this->ctx;
  t_pol_entry* e = this->use("p", "a");
  TypeParam::add(ctx, "b", 1);
  EXPECT_TRUE(this->changes([&](uint8_t* c) { TypeParam::clause(ctx, e, "b", c); }));
  EXPECT_EQ(TypeParam::find(ctx, "a"), nullptr);
  EXPECT_FALSE(this->changes([&](uint8_t* c) { TypeParam::clause(ctx, e, "b", c); }));
  pol_block_find_and_delete(ctx, "p", TypeParam::kKind, &this->changed);
  TypeParam::cfg_del(ctx, "b");
  EXPECT_EQ(TypeParam::find(ctx, "b"), nullptr) << "the policy's deletion unregistered";
}

// Naming a list that cannot be made leaves the clause with the list it had, of which it is no user
// any more: the reference must hold while the list lives and vanish with it, whatever comes next.
TYPED_TEST(NamedListTest, FailedRenameKeepsTheOldListWhileItLives) {
  t_pol_ctx* ctx = this->ctx;
  typename PolicyTest::Calls calls;
  t_pol_user* user = this->add_user("u", "p", &calls, POL_DIR_OUT, TypeParam::kKind);
  t_pol_entry* e = this->sequence("p");
  auto fail = [&] { this->fail_to_rename(e); };
  auto make_stale = [&] {
    e = this->sequence("p");
    EXPECT_NE(TypeParam::clause(ctx, e, "old", &this->changed), nullptr);
    this->keep("old");
    fail();
    EXPECT_TRUE(TypeParam::in_force(*e));
    ASSERT_NE(TypeParam::user(*e).list, nullptr);
    EXPECT_EQ(TypeParam::user(*e).list, &TypeParam::find(ctx, "old")->head) << "still the old one";
  };
  make_stale();
  pol_user_chg_list_notify_all(ctx);
  calls.count = 0;
  TypeParam::add(ctx, "old", 2);
  EXPECT_EQ(calls.count, 0) << "but not as its user";
  EXPECT_FALSE(this->changes([&](uint8_t* c) { TypeParam::clause(ctx, e, "old", c); }));
  fail();
  this->let_go("old");
  EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr);
  EXPECT_EQ(TypeParam::user(*e).list, nullptr);

  TypeParam::clause(ctx, e, "old", &this->changed);
  fail();
  EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr) << "freed by the very attempt";
  EXPECT_EQ(TypeParam::user(*e).list, nullptr);

  for (const char* way : {"other name", "clear", "sequence", "policy", "policy with users"}) {
    SCOPED_TRACE(way);
    make_stale();
    if (way[0] == 'o') TypeParam::clause(ctx, e, "new", &this->changed);
    if (way[0] == 'c') TypeParam::drop(ctx, e, &this->changed);
    if (way[0] == 's') this->delete_sequence("p");
    if (way[0] == 'p') {
      if (way == std::string("policy")) pol_unregister(&user);
      pol_block_find_and_delete(ctx, "p", TypeParam::kKind, &this->changed);
      user = this->add_user("u", "p", nullptr, POL_DIR_OUT, TypeParam::kKind);
    }
    this->let_go("old");
    EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr);
    if (way[0] == 'o') TypeParam::drop(ctx, e, &this->changed);
  }
}

TYPED_TEST(ElementListTest, FailedRenameStillMatchesTheOldListUntilItsConfigurationGoes) {
  t_pol_user* user = this->add_user("u", "p", nullptr);
  t_pol_entry* e = this->use("p", "old");
  TypeParam::add(this->ctx, "old", 1);
  this->fail_to_rename(e);
  EXPECT_EQ(this->evaluate(user, 1), POL_ACCEPT);
  TypeParam::cfg_del(this->ctx, "old");
  EXPECT_EQ(this->evaluate(user, 1), POL_REJECT);
}

template <class Family>
class FwdObjectTest : public NamedListTest<Family> {};
TYPED_TEST_SUITE(FwdObjectTest, ObjectFamilies);

TYPED_TEST(FwdObjectTest, ChangeTellsEveryRolesUsersInOrderAndConfigurationGoesOnlyUnused) {
  t_pol_ctx* ctx = this->ctx;
  TypeParam::add(ctx, "l", 1);
  EXPECT_NE(TypeParam::find(ctx, "l"), nullptr) << "made by a change";
  TypeParam::cfg_del(ctx, "l");
  EXPECT_EQ(TypeParam::find(ctx, "l"), nullptr);

  // Policies come to the roles from the last on, so that roles and not the time decide.
  constexpr size_t kRoles = std::size(TypeParam::kRoles);
  std::vector<int> order;
  std::vector<int> expected;
  typename PolicyTest::Calls calls[2 * kRoles];
  for (size_t i = 2 * kRoles; i-- > 0;) {
    size_t role = i / 2;
    std::string policy = "p" + std::to_string(i);
    calls[i].order = &order;
    calls[i].id = static_cast<int>(i ^ 1);
    t_pol_entry* e = this->sequence(policy.c_str());
    pol::fwd_ref_add(ctx, e, "l", &this->changed, *TypeParam::kRoles[role]);
    this->add_user("u", policy.c_str(), &calls[i], i, TypeParam::kKind);
    expected.push_back(static_cast<int>(2 * kRoles - 1 - i));
  }
  this->take_queued();
  TypeParam::cfg_del(ctx, "l");
  EXPECT_EQ(order.size(), 0u) << "used: nothing happens";
  EXPECT_EQ(TypeParam::add(ctx, "l", 1), POL_OK);
  EXPECT_EQ(order, expected);
  // Sequences with DNS and SaaS lists must let go of them before they go.
  for (size_t i = 0; i < 2 * kRoles; ++i) {
    t_pol_entry* e = this->sequence(("p" + std::to_string(i)).c_str());
    pol::fwd_ref_delete(ctx, e, &this->changed, *TypeParam::kRoles[i / 2]);
    EXPECT_EQ(TypeParam::find(ctx, "l") == nullptr, i + 1 == 2 * kRoles);
  }
}

// A record is a user of one object a role, however a host mixes up its calls.
TYPED_TEST(FwdObjectTest, RecordRegisteredByHandIsOnOneObjectAndGoesWithItsSequence) {
  t_pol_ctx* ctx = this->ctx;
  const pol::FwdRef& ref = *TypeParam::kRoles[0];
  t_pol_entry* e = this->sequence("p");
  t_pol_fwd_user* record = e->fwd.user;
  EXPECT_EQ(ref.add(ctx, "a", record), ref.add(ctx, "a", record));
  this->use("q", "a");
  ref.add(ctx, "b", record);
  ref.remove(ctx, &TypeParam::find(ctx, "a")->head, record);
  EXPECT_EQ(TypeParam::user(*e).list, &TypeParam::find(ctx, "b")->head);
  this->delete_sequence("p");
  EXPECT_EQ(TypeParam::find(ctx, "b"), nullptr);
  EXPECT_NE(TypeParam::find(ctx, "a"), nullptr);
}

// Whichever allocation fails, the add says so and the list is as before.
TYPED_TEST(ElementListTest, AnyFailedAllocationLeavesTheListAsItWas) {
  t_pol_ctx* ctx = this->ctx;
  for (bool exists : {false, true}) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
      typename PolicyTest::UncountedFailures lists(TypeParam::kListMem);
      typename PolicyTest::UncountedFailures entries(TypeParam::kEntryMem);
      typename PolicyTest::UncountedFailures records(pol::MEM_POLICY_CONFIG);
      if (exists) TypeParam::add(ctx, "l", 7);
      uint32_t status = 0;
      {
        seams::Fail fail(nth);
        status = TypeParam::add(ctx, "l", 1);
        hit = fail.hit();
      }
      // An XML record is a convenience: a list works without it.
      auto* list = TypeParam::find(ctx, "l");
      EXPECT_TRUE(status == POL_OK || (hit && status == POL_ENOMEM));
      EXPECT_EQ(list != nullptr, exists || status == POL_OK) << nth;
      int elements = 0;
      if (list != nullptr) {
        for (auto& element : elements_of(list->entries)) elements += sizeof element != 0;
      }
      EXPECT_EQ(elements, (exists ? 1 : 0) + (status == POL_OK ? 1 : 0));
      TypeParam::cfg_del(ctx, "l");
      EXPECT_EQ(TypeParam::find(ctx, "l"), nullptr);
    }
  }
}

template <class Family>
using NamedListDeathTest = NamedListTest<Family>;
TYPED_TEST_SUITE(NamedListDeathTest, Families);

TYPED_TEST(NamedListDeathTest, TeardownWithAUserEndsTheProcess) {
  this->use("p", "l");
  auto deinit_all = [](t_pol_ctx* ctx) {
    for (auto deinit :
         {pol_site_list_main_deinit, pol_vpn_list_main_deinit, pol_tloc_list_main_deinit,
          pol_color_list_main_deinit, pol_pfx_list_main_deinit, pol_app_list_main_deinit,
          pol_fwd_pfx_list_main_deinit, pol_fwd_pfx6_list_main_deinit,
          pol_fwd_sla_class_main_deinit, pol_fwd_policer_main_deinit, pol_fwd_app_id_main_deinit}) {
      deinit(ctx);
    }
  };
  EXPECT_EXIT(deinit_all(this->ctx), ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
