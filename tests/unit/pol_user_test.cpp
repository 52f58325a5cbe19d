// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "support/policy_fixture.h"

namespace {

using UserTest = PolicyTest;

TEST_F(UserTest, TenChangesCallBackOnce) {
  Calls calls;
  add_user("u", "p", &calls);
  for (uint32_t i = 1; i <= 10; ++i) entry(block("p"), i);
  EXPECT_EQ(calls.count, 0);
  for (int i = 0; i < 2; ++i) {
    pol_user_chg_list_notify_all(ctx);
    EXPECT_EQ(calls.count, 1);
  }
  // One who comes when all others are queued is queued by the next change.
  entry(block("p"), 11);
  Calls late;
  add_user("late", "p", &late);
  entry(block("p"), 12);
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(late.count, 1);
}

TEST_F(UserTest, FirstRegistrationWinsAndTheKeyIsKindDirectionName) {
  Calls first;
  Calls second;
  t_pol_user* user = add_user("b", "p", &first);
  EXPECT_EQ(add_user("b", "other", &second), user);
  EXPECT_EQ(pol_block_find(ctx, "other", POL_KIND_ROUTE, nullptr), nullptr);
  entry(block("p"), 1);
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(std::pair(first.count, second.count), std::pair(1, 0));
  EXPECT_EQ(add_user("b", "p", &first, POL_DIR_OUT, 9), nullptr) << "no such kind";
  add_user("b", "p", nullptr, POL_DIR_IN);
  add_user("a", "p", nullptr, POL_DIR_OUT);
  add_user("c", "m", nullptr, POL_DIR_NONE, POL_KIND_MEMBERSHIP);
  std::string order;
  for (t_pol_user* u = ctx->users.first(); u != nullptr; u = ctx->users.next(u)) order += u->name;
  EXPECT_EQ(order, "babc");
}

TEST_F(UserTest, FieldsWithoutANulAreCut) {
  t_pol_registration record;
  memset(&record, 'x', sizeof record);
  record.kind = POL_KIND_ROUTE;
  record.direction = POL_DIR_OUT;
  record.change = nullptr;
  record.resolve = nullptr;
  t_pol_user* user = pol_register(&record);
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(pol_register(&record), user);
  char name[POL_NAME_SIZE];
  EXPECT_EQ(strlen(pol_handle_get_name(user, name, sizeof name)), POL_NAME_SIZE - 1u);
  char small[4];
  EXPECT_STREQ(pol_handle_get_name(user, small, sizeof small), "xxx");
  EXPECT_STREQ(pol_handle_get_name(nullptr, small, sizeof small), "");
}

// A callback that changes its own policy and asks for notification is neither called again nor
// lost.
TEST_F(UserTest, ChangesInsideACallbackWaitForTheNextBatch) {
  Calls calls;
  calls.ctx = ctx;
  calls.also = [](t_pol_user* user, Calls* self) {
    uint8_t changed = 0;
    pol_entry_find_or_create(self->ctx, user->block, 100u + static_cast<uint32_t>(self->count),
                             &changed);
    pol_user_chg_list_notify_all(self->ctx);
    pol_user_notify(self->ctx, user);
    pol_block_user_notify_all(self->ctx, user->block);
  };
  add_user("u", "p", &calls);
  entry(block("p"), 1);
  for (int batch = 1; batch <= 3; ++batch) {
    pol_user_chg_list_notify_all(ctx);
    EXPECT_EQ(calls.count, batch);
  }
}

// Two callbacks that change the policy of both would chase each other for ever.
TEST_F(UserTest, CallbacksThatQueueEachOtherEnd) {
  Calls a;
  Calls b;
  a.ctx = b.ctx = ctx;
  a.also = b.also = [](t_pol_user* user, Calls* self) {
    if (self->count > 5) return;
    uint8_t changed = 0;
    t_pol_entry* e = pol_entry_find_or_create(self->ctx, user->block, 1, &changed);
    pol_entry_match_tag_add(self->ctx, e, e->match.tag + 1, &changed);
  };
  add_user("a", "p", &a);
  add_user("b", "p", &b);
  entry(block("p"), 1);
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(a.count, 1);
  EXPECT_EQ(b.count, 1);
  EXPECT_EQ(take_queued(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(UserTest, CallbackMayUnregisterAnyone) {
  Calls a;
  Calls b;
  Calls c;
  std::vector<int> order;
  a.order = b.order = c.order = &order;
  a.id = 1, b.id = 2, c.id = 3;
  a.also = [](t_pol_user* user, Calls* self) {
    if (self->other == nullptr) return;
    pol_unregister(&self->other);
    pol_unregister(&user);
  };
  add_user("a", "p", &a);
  a.other = add_user("b", "p", &b);
  add_user("c", "p", &c);
  pol_block_user_notify_all(ctx, block("p"));
  EXPECT_EQ(order, (std::vector<int>{1, 3}));

  order.clear();
  a.other = add_user("b", "p", &b);
  add_user("a", "p", &a);
  entry(block("p"), 1);  // queued: c, b, a
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(order, (std::vector<int>{3, 2, 1}));
}

TEST_F(UserTest, CallbackMayDeleteThePolicy) {
  Calls a;
  Calls b;
  a.ctx = ctx;
  a.also = [](t_pol_user*, Calls* self) {
    uint8_t changed = 0;
    pol_block_find_and_delete(self->ctx, "p", POL_KIND_ROUTE, &changed);
  };
  add_user("a", "p", &a);
  add_user("b", "p", &b);
  pol_block_user_notify_all(ctx, block("p"));
  EXPECT_EQ(a.count, 1);
  EXPECT_EQ(b.count, 0) << "no longer a user of the policy";
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(b.count, 1) << "but queued by its deletion";
}

TEST_F(UserTest, UnregisteredUsersLeaveTheChangeList) {
  Calls calls;
  t_pol_user* user = add_user("u", "p", &calls);
  entry(block("p"), 1);
  pol_unregister(&user);
  user = add_user("w", "p", &calls);
  pol_block_find_and_delete(ctx, "p", POL_KIND_ROUTE, &changed);
  pol_unregister(&user);
  pol_user_chg_list_notify_all(ctx);
  EXPECT_EQ(calls.count, 0);
  pol_unregister(&user);
  pol_unregister(nullptr);
}

TEST_F(UserTest, HandlesMayOutliveTheContext) {
  t_pol_user* user = add_user("u", "p", nullptr);
  pol_destroy();
  pol_unregister(&user);
  EXPECT_EQ(user, nullptr);
  EXPECT_EQ(add_user("u", "p", nullptr), nullptr);
  init();
}

// Users of two policies against a list of what must happen: a change queues those of the policy that
// are not queued, in the order in which they registered; a notification takes them in turn.
TEST_F(UserTest, AnyOrderOfCallsIsThatOfANaiveQueue) {
  struct Model {
    std::vector<t_pol_user*> of[2];
    std::vector<t_pol_user*> queued;
  } model;
  Calls calls[12];
  std::vector<int> order;
  for (int i = 0; i < 12; ++i) calls[i].order = &order, calls[i].id = i;
  const auto id = [&](const t_pol_user* user) {
    return static_cast<int>(reinterpret_cast<Calls*>(user->user_arg) - calls);
  };
  const auto remove = [](std::vector<t_pol_user*>& from, t_pol_user* user) {
    return std::erase(from, user) != 0;
  };
  srand(1);
  const auto pick = [](int below) { return rand() % below; };
  const char* policies[] = {"p", "q"};
  t_pol_user* users[12] = {};
  for (int step = 0; step < 20000; ++step) {
    const int at = pick(12);
    const int policy = at % 2;
    t_pol_user*& user = users[at];
    std::vector<int> expected;
    order.clear();
    switch (pick(8)) {
      case 0:
        if (user == nullptr) {
          user = add_user(std::to_string(at).c_str(), policies[policy], &calls[at]);
          model.of[policy].push_back(user);
        } else {
          remove(model.of[policy], user), remove(model.queued, user);
          pol_unregister(&user);
        }
        break;
      case 1:
      case 2:
        pol_block_users_add_to_chg_list(ctx, block(policies[policy]));
        for (t_pol_user* each : model.of[policy]) {
          if (std::count(model.queued.begin(), model.queued.end(), each) == 0) {
            model.queued.push_back(each);
          }
        }
        break;
      case 3:
        pol_user_chg_list_delete(ctx, user);
        remove(model.queued, user);
        break;
      case 4:
        pol_user_chg_list_add(ctx, user);
        if (user != nullptr && std::count(model.queued.begin(), model.queued.end(), user) == 0) {
          model.queued.push_back(user);
        }
        break;
      case 5:
        pol_user_notify(ctx, user);
        if (user != nullptr) expected = {at};
        remove(model.queued, user);
        break;
      case 6:
        pol_block_user_notify_all(ctx, block(policies[policy]));
        for (t_pol_user* each : model.of[policy]) {
          expected.push_back(id(each));
          remove(model.queued, each);
        }
        break;
      default:
        if (pick(4) != 0) break;  // long queues, too
        pol_user_chg_list_notify_all(ctx);
        for (t_pol_user* each : model.queued) expected.push_back(id(each));
        model.queued.clear();
    }
    ASSERT_EQ(order, expected) << "step " << step;
    std::vector<t_pol_user*> queued;
    for (t_pol_user& each : ctx->change_list) queued.push_back(&each);
    ASSERT_EQ(queued, model.queued) << "step " << step;
  }
}

// Each callback changes the policy of all, of whom it is the only one not queued: time by the
// processor, because the machine may be busy.
TEST_F(UserTest, CallbacksThatChangeTheirOwnPolicyCostNoWalkOverAllUsers) {
  Calls calls;
  calls.ctx = ctx;
  calls.also = [](t_pol_user* user, Calls* self) {
    pol_block_users_add_to_chg_list(self->ctx, user->block);
  };
  constexpr int kUsers = 40000;
  for (int i = 0; i < kUsers; ++i) add_user(std::to_string(i).c_str(), "p", &calls);
  pol_block_users_add_to_chg_list(ctx, block("p"));
  const clock_t start = clock();
  pol_user_chg_list_notify_all(ctx);
  EXPECT_LT(clock() - start, 2 * CLOCKS_PER_SEC);
  EXPECT_EQ(calls.count, kUsers);
  EXPECT_EQ(take_queued().size(), size_t{kUsers});
}

}  // namespace
