// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdlib>

#include "support/policy_fixture.h"

namespace {

using UserTest = PolicyTest;

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

TEST_F(UserTest, HandlesMayOutliveTheContext) {
  t_pol_user* user = add_user("u", "p", nullptr);
  t_pol_list_user* list_user = pol_site_list_user_add(ctx, "s", nullptr, nullptr);
  pol_destroy();
  EXPECT_EQ(pol_list_site_match(list_user, 1), 0);
  pol_list_unregister(list_user);  // has no list to leave
  pol_free(list_user, pol::MEM_LIST_USER);
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

}  // namespace
