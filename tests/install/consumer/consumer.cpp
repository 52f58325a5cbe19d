// SPDX-License-Identifier: Apache-2.0
//
// A C++ host against the installed tree: it is told of a change and asks then.
#include <policy/policy.h>

#include <cstdio>

int main() {
  t_pol_callbacks callbacks = {};
  t_pol_ctx* ctx = pol_init(&callbacks);
  int calls = 0;
  t_pol_registration record = {"consumer", "branches", POL_KIND_ROUTE, POL_DIR_IN, {}, {}, 0, {}};
  record.change = [](t_pol_user*, uint64_t arg) { ++*reinterpret_cast<int*>(arg); };
  record.user_arg = reinterpret_cast<uint64_t>(&calls);
  t_pol_user* user = pol_register(&record);

  uint8_t changed = 0;
  t_pol_block* policy = pol_block_find(ctx, "branches", POL_KIND_ROUTE, nullptr);
  pol_entry_action_add(ctx, pol_entry_find_or_create(ctx, policy, 10, &changed), POL_ACCEPT,
                       &changed);
  pol_entry_match_add(ctx, policy, pol_entry_find(ctx, policy, 10, nullptr), POL_MATCH_ROUTE,
                      &changed);
  pol_user_chg_list_notify_all(ctx);

  t_pol_route_query query;
  pol_pre_execute(&query, POL_KIND_ROUTE);
  query.match_type = POL_MATCH_ROUTE;
  const uint32_t action = pol_execute(user, &query);
  pol_post_execute(&query);
  pol_unregister(&user);
  pol_destroy();
  if (calls == 1 && action == POL_ACCEPT) return 0;
  std::fprintf(stderr, "called %d times, action %u\n", calls, action);
  return 1;
}
