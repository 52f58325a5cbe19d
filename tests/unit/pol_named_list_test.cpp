// SPDX-License-Identifier: Apache-2.0
// What the five lists with elements share.
#include <csignal>

#include "support/list_families.h"
#include "support/seams.h"

namespace {

template <class Family>
class NamedListTest : public PolicyTest {
 protected:
  // A policy of one accepting sequence that matches on the list, and its user.
  t_pol_entry* use(const char* policy, const char* list) {
    t_pol_entry* e = entry(block(policy), 10);
    EXPECT_NE(Family::clause(ctx, e, list, &changed), nullptr);
    return e;
  }

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

using Families = ::testing::Types<SiteFamily, VpnFamily, TlocFamily, ColorFamily, PfxFamily>;
TYPED_TEST_SUITE(NamedListTest, Families);

TYPED_TEST(NamedListTest, NodeLivesAsLongAsElementsOrUsers) {
  t_pol_ctx* ctx = this->ctx;
  t_pol_entry* e = this->use("p", "l");
  EXPECT_NE(TypeParam::find(ctx, "l"), nullptr) << "made by its first user";
  TypeParam::drop(ctx, e, &this->changed);
  EXPECT_EQ(TypeParam::find(ctx, "l"), nullptr) << "gone with its last user";

  TypeParam::add(ctx, "l", 1);
  TypeParam::del(ctx, "l", 1);
  EXPECT_NE(TypeParam::find(ctx, "l"), nullptr) << "the last element's deletion keeps the node";
  TypeParam::cfg_del(ctx, "l");
  EXPECT_EQ(TypeParam::find(ctx, "l"), nullptr);

  TypeParam::add(ctx, "l", 1);
  e = this->use("p", "l");
  TypeParam::cfg_del(ctx, "l");
  EXPECT_NE(TypeParam::find(ctx, "l"), nullptr) << "kept, empty, for its user";
  EXPECT_TRUE(TypeParam::find(ctx, "l")->entries.empty());
  TypeParam::add(ctx, "l", 2);
  TypeParam::drop(ctx, e, &this->changed);
  EXPECT_NE(TypeParam::find(ctx, "l"), nullptr) << "kept for its element";
  EXPECT_EQ(TypeParam::del(ctx, "absent", 1), POL_OK);
  EXPECT_EQ(TypeParam::cfg_del(ctx, "absent"), POL_OK);
}

TYPED_TEST(NamedListTest, ChangesNotifyUsersOnceAndMissesDoNot) {
  t_pol_ctx* ctx = this->ctx;
  typename PolicyTest::Calls calls;
  t_pol_user* user = this->add_user("u", "p", &calls);
  this->use("p", "l");
  pol_user_chg_list_notify_all(ctx);
  calls.count = 0;

  TypeParam::add(ctx, "l", 1);
  EXPECT_EQ(calls.count, 1);
  EXPECT_EQ(this->evaluate(user, 1), POL_ACCEPT);
  EXPECT_EQ(this->evaluate(user, 2), POL_REJECT);
  TypeParam::add(ctx, "l", 1);
  EXPECT_EQ(calls.count, TypeParam::kRepeatNotifies ? 2 : 1);
  EXPECT_EQ(this->current(TypeParam::kEntryMem), 1u);
  calls.count = 0;
  TypeParam::del(ctx, "l", 2);
  TypeParam::del(ctx, "other", 1);
  EXPECT_EQ(calls.count, 0);
  TypeParam::del(ctx, "l", 1);
  EXPECT_EQ(calls.count, 1);
  EXPECT_EQ(this->evaluate(user, 1), POL_REJECT);

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
  pol_block_find_and_delete(ctx, "p", POL_KIND_ROUTE, &this->changed);
  TypeParam::cfg_del(ctx, "b");
  EXPECT_EQ(TypeParam::find(ctx, "b"), nullptr) << "the policy's deletion unregistered";
}

// Naming a list that cannot be made leaves the clause with the list it had, of which it is no user
// any more: the reference must hold while the list lives and vanish with it.
TYPED_TEST(NamedListTest, FailedRenameKeepsTheOldListWhileItLives) {
  t_pol_ctx* ctx = this->ctx;
  typename PolicyTest::Calls calls;
  t_pol_user* user = this->add_user("u", "p", &calls);
  t_pol_entry* e = this->use("p", "old");
  TypeParam::add(ctx, "old", 1);
  auto fail = [&] {
    uint64_t lists = g_pol_mem_info[TypeParam::kListMem].allocs;
    seams::Fail none(1);
    EXPECT_EQ(TypeParam::clause(ctx, e, "new", &this->changed), nullptr);
    g_pol_mem_info[TypeParam::kListMem].allocs = lists;
  };
  fail();
  EXPECT_NE(e->match_flags & TypeParam::kFlag, 0u);
  EXPECT_EQ(this->evaluate(user, 1), POL_ACCEPT) << "still the old list";
  pol_user_chg_list_notify_all(ctx);
  calls.count = 0;
  TypeParam::add(ctx, "old", 2);
  EXPECT_EQ(calls.count, 0) << "but not as its user";
  TypeParam::cfg_del(ctx, "old");
  EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr);
  EXPECT_EQ(this->evaluate(user, 1), POL_REJECT);
  EXPECT_EQ(TypeParam::user(*e).list, nullptr);

  // The old list is freed by the very attempt when nothing else holds it.
  TypeParam::clause(ctx, e, "old", &this->changed);
  fail();
  EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr);
  EXPECT_EQ(this->evaluate(user, 1), POL_REJECT);

  // A later success, a deletion and a deleted sequence all leave the stale list alone.
  for (int way = 0; way < 3; ++way) {
    TypeParam::clause(ctx, e, "old", &this->changed);
    TypeParam::add(ctx, "old", 1);
    fail();
    if (way == 0) TypeParam::clause(ctx, e, "new", &this->changed);
    if (way == 1) TypeParam::drop(ctx, e, &this->changed);
    if (way == 2) pol_entry_find_and_delete(ctx, this->block("p"), 10, &this->changed);
    TypeParam::cfg_del(ctx, "old");
    EXPECT_EQ(TypeParam::find(ctx, "old"), nullptr) << way;
  }
}

// Whichever allocation fails, the add says so and the list is as before.
TYPED_TEST(NamedListTest, AnyFailedAllocationLeavesTheListAsItWas) {
  t_pol_ctx* ctx = this->ctx;
  for (bool exists : {false, true}) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
      typename PolicyTest::UncountedFailures lists(TypeParam::kListMem);
      typename PolicyTest::UncountedFailures entries(TypeParam::kEntryMem);
      typename PolicyTest::UncountedFailures records(8);
      if (exists) TypeParam::add(ctx, "l", 7);
      uint64_t elements_before = exists ? 1 : 0;
      uint32_t status = 0;
      {
        seams::Fail fail(nth);
        status = TypeParam::add(ctx, "l", 1);
        hit = fail.hit();
      }
      auto* list = TypeParam::find(ctx, "l");
      size_t elements = 0;
      if (list != nullptr) {
        for (auto& element : elements_of(list->entries)) elements += sizeof element != 0;
      }
      if (status == POL_OK) {
        // An XML record is a convenience: a list works without it.
        EXPECT_EQ(elements, elements_before + 1);
      } else {
        EXPECT_TRUE(hit);
        EXPECT_EQ(status, POL_ENOMEM);
        EXPECT_EQ(list != nullptr, exists) << nth;
        EXPECT_EQ(elements, elements_before);
      }
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
    pol_site_list_main_deinit(ctx);
    pol_vpn_list_main_deinit(ctx);
    pol_tloc_list_main_deinit(ctx);
    pol_color_list_main_deinit(ctx);
    pol_pfx_list_main_deinit(ctx);
  };
  EXPECT_EXIT(deinit_all(this->ctx), ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
