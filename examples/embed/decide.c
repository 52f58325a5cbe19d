/* SPDX-License-Identifier: Apache-2.0
 *
 * The smallest host: configure a policy, register for it, have it decide two routes.
 *
 *   cc decide.c $(pkg-config --cflags --libs libpolicy) -o decide
 */
#include <policy/policy.h>
#include <stdio.h>
#include <string.h>

/* The policy "prefer-lab": sequence 10 accepts what lies in 10.1.0.0/16, up to /24, and gives it
 * preference 200. Everything else is rejected, which is every policy's default. */
static void configure(t_pol_ctx* ctx) {
  uint8_t changed = 0; /* set to 1 by whatever really changes something */
  t_pol_pfx_record lab;
  t_pol_block* policy;
  t_pol_entry* entry;

  memset(&lab, 0, sizeof lab);
  lab.op = POL_PFX_LE;
  lab.prefix.addr.family = KEL_AF_INET;
  lab.prefix.addr.addr.v4 = 0x0a010000; /* 10.1.0.0, host byte order */
  lab.prefix.len = 16;
  lab.max = 24;
  pol_pfx_list_entry_add(ctx, "lab", &lab);

  policy = pol_block_find_or_create(ctx, "prefer-lab", POL_KIND_ROUTE, &changed);
  entry = pol_entry_find_or_create(ctx, policy, 10, &changed);
  pol_entry_match_add(ctx, policy, entry, POL_MATCH_ROUTE, &changed);
  pol_entry_match_pfx_list_add(ctx, entry, "lab", &changed);
  pol_entry_set_add(ctx, entry);
  pol_entry_set_preference_add(ctx, entry, 200, &changed);
  pol_entry_action_add(ctx, entry, POL_ACCEPT, &changed);
  if (changed) pol_user_chg_list_notify_all(ctx); /* once a batch: every user's callback runs */
}

/* Runs whenever something that the policy uses has changed: the host would ask again. */
static void policy_changed(t_pol_user* user, uint64_t user_arg) {
  char name[POL_NAME_SIZE];
  (void)user_arg;
  printf("policy %s changed\n", pol_handle_get_name(user, name, sizeof name));
}

static void decide(t_pol_user* user, uint32_t address, uint8_t length) {
  t_pol_route_attr attr; /* what the route carries; the library only reads it */
  t_pol_route_query query;
  uint32_t action;

  memset(&attr, 0, sizeof attr);
  attr.present = POL_ATTR_PREF;
  attr.preference = 100;

  pol_pre_execute(&query, POL_KIND_ROUTE);
  query.attr = &attr;
  query.match_type = POL_MATCH_ROUTE;
  query.vpn = 1;
  query.prefix.addr.family = KEL_AF_INET;
  query.prefix.addr.addr.v4 = address;
  query.prefix.len = length;
  action = pol_execute(user, &query);
  printf("%u.%u.%u.%u/%u %s, preference %u\n", address >> 24, address >> 16 & 255,
         address >> 8 & 255, address & 255, length, pol_util_action_str(action),
         query.attr_copy.preference); /* the attributes after the set clauses */
  pol_post_execute(&query);
}

int main(void) {
  t_pol_callbacks callbacks = {NULL};
  t_pol_registration registration;
  t_pol_user* user;
  t_pol_ctx* ctx = pol_init(&callbacks);
  if (ctx == NULL) return 1;

  memset(&registration, 0, sizeof registration);
  strcpy(registration.user_name, "route-daemon");
  strcpy(registration.policy_name, "prefer-lab");
  registration.kind = POL_KIND_ROUTE;
  registration.direction = POL_DIR_IN;
  registration.change = policy_changed;
  user = pol_register(&registration);
  if (user == NULL) return 1;

  configure(ctx);
  decide(user, 0x0a010200, 24); /* 10.1.2.0/24 */
  decide(user, 0x0a020000, 16); /* 10.2.0.0/16 */

  pol_unregister(&user);
  pol_destroy();
  return 0;
}
