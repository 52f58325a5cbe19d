// SPDX-License-Identifier: Apache-2.0
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
  pol_destroy();
  pol_unregister(&user);
  EXPECT_EQ(user, nullptr);
  EXPECT_EQ(add_user("u", "p", nullptr), nullptr);
  init();
}

}  // namespace
