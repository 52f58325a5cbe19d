// SPDX-License-Identifier: Apache-2.0
//
// A C++ host against the installed tree: it is told of a change, then asks again.
#include <policy/policy.h>

#include <cstdio>
#include <cstring>

namespace {

void count_call(t_pol_user* /*user*/, uint64_t arg) { ++*reinterpret_cast<int*>(arg); }

uint32_t decide(t_pol_user* user, uint32_t site) {
  t_pol_route_attr attr = {};
  attr.present = POL_ATTR_SITE;
  attr.site = site;
  t_pol_route_query query;
  pol_pre_execute(&query, POL_KIND_ROUTE);
  query.attr = &attr;
  query.match_type = POL_MATCH_ROUTE;
  uint32_t action = pol_execute(user, &query);
  pol_post_execute(&query);
  return action;
}

int fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  return 1;
}

}  // namespace

int main() {
  t_pol_callbacks callbacks = {};
  t_pol_ctx* ctx = pol_init(&callbacks);
  if (ctx == nullptr) return fail("no context");

  int calls = 0;
  t_pol_registration record = {};
  std::strcpy(record.user_name, "consumer");
  std::strcpy(record.policy_name, "branches");
  record.kind = POL_KIND_ROUTE;
  record.direction = POL_DIR_IN;
  record.change = count_call;
  record.user_arg = reinterpret_cast<uint64_t>(&calls);
  t_pol_user* user = pol_register(&record);
  if (user == nullptr) return fail("not registered");
  if (decide(user, 7) != POL_REJECT) return fail("a policy not configured yet must reject");

  uint8_t changed = 0;
  t_pol_block* policy = pol_block_find(ctx, "branches", POL_KIND_ROUTE, nullptr);
  t_pol_entry* entry = pol_entry_find_or_create(ctx, policy, 10, &changed);
  pol_entry_match_add(ctx, policy, entry, POL_MATCH_ROUTE, &changed);
  pol_entry_match_site_list_add(ctx, entry, "near", &changed);
  pol_entry_action_add(ctx, entry, POL_ACCEPT, &changed);
  pol_user_chg_list_notify_all(ctx);
  if (calls != 1) return fail("one batch of changes is one call");

  pol_site_list_add_entry(ctx, "near", 5, 9);
  if (calls != 2) return fail("a list that the policy names has changed");
  if (decide(user, 7) != POL_ACCEPT || decide(user, 10) != POL_REJECT) return fail("wrong answer");

  pol_unregister(&user);
  pol_destroy();
  return g_pol_mem_info[1].allocs == g_pol_mem_info[1].frees ? 0 : fail("the context stays");
}
