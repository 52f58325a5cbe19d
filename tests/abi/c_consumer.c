/* SPDX-License-Identifier: Apache-2.0
 *
 * A C host: every public header compiles as C11, the records lie in memory as hosts were built
 * against, and one route goes through. A figure that changes here breaks every host that was built before.
 */
#include <stddef.h>
#include <string.h>

#include "policy/policy.h"

#define AT(type, member, bytes) (offsetof(type, member) == (bytes))
#define LAYOUT(type, bytes, places) \
  _Static_assert(sizeof(type) == (bytes) && (places), #type " changed its layout")

LAYOUT(t_ipaddr, 20, AT(t_ipaddr, addr, 4));
LAYOUT(t_ipprefix, 24, AT(t_ipprefix, len, 20));
LAYOUT(t_tloc_id, 24,
       AT(t_tloc_id, addr, 4) && AT(t_tloc_id, color, 20) && AT(t_tloc_id, encap, 21));
LAYOUT(t_pol_route_attr, 944,
       AT(t_pol_route_attr, present, 0) && AT(t_pol_route_attr, tag, 4) &&
           AT(t_pol_route_attr, preference, 8) && AT(t_pol_route_attr, domain, 12) &&
           AT(t_pol_route_attr, site, 16) && AT(t_pol_route_attr, label, 20) &&
           AT(t_pol_route_attr, tloc, 24) && AT(t_pol_route_attr, originator, 48) &&
           AT(t_pol_route_attr, origin_protocol, 68) && AT(t_pol_route_attr, origin_subtype, 69) &&
           AT(t_pol_route_attr, carrier, 70) && AT(t_pol_route_attr, group_count, 72) &&
           AT(t_pol_route_attr, group, 76) && AT(t_pol_route_attr, reserved, 332));
LAYOUT(t_pol_tloc_result_entry, 40, AT(t_pol_tloc_result_entry, tloc, 8));
LAYOUT(t_pol_tloc_result, 8 + 65 * 40,
       AT(t_pol_tloc_result, ultimate, 4) && AT(t_pol_tloc_result, entry, 8));
LAYOUT(t_pol_vpn_range, 16, 1);
LAYOUT(t_pol_route_query, 1048,
       AT(t_pol_route_query, attr, 0) && AT(t_pol_route_query, id, 8) &&
           AT(t_pol_route_query, match_type, 10) && AT(t_pol_route_query, kind, 12) &&
           AT(t_pol_route_query, vpn, 16) && AT(t_pol_route_query, tloc, 24) &&
           AT(t_pol_route_query, prefix, 48) && AT(t_pol_route_query, matched, 72) &&
           AT(t_pol_route_query, applied, 76) && AT(t_pol_route_query, attr_copy, 80) &&
           AT(t_pol_route_query, tlocs, 1024) && AT(t_pol_route_query, vpn_count, 1032) &&
           AT(t_pol_route_query, vpn_array, 1040));
LAYOUT(t_pol_registration, 296,
       AT(t_pol_registration, policy_name, 128) && AT(t_pol_registration, kind, 256) &&
           AT(t_pol_registration, direction, 260) && AT(t_pol_registration, change, 264) &&
           AT(t_pol_registration, resolve, 272) && AT(t_pol_registration, reserved, 280) &&
           AT(t_pol_registration, user_arg, 288));
LAYOUT(t_pol_list_user, 32,
       AT(t_pol_list_user, change, 8) && AT(t_pol_list_user, list, 16) &&
           AT(t_pol_list_user, arg, 24));
LAYOUT(t_pol_list_registration, 88,
       AT(t_pol_list_registration, list_type, 64) && AT(t_pol_list_registration, change, 72) &&
           AT(t_pol_list_registration, arg, 80));
LAYOUT(t_pol_pfx_record, 32,
       AT(t_pol_pfx_record, prefix, 4) && AT(t_pol_pfx_record, min, 28) &&
           AT(t_pol_pfx_record, max, 29));
LAYOUT(t_pol_service_result, 4 + 64 * 40, AT(t_pol_service_result, entry, 4));
LAYOUT(t_pol_callbacks, 8, 1);
LAYOUT(t_pol_explain_step, 24,
       AT(t_pol_explain_step, is_default, 4) && AT(t_pol_explain_step, decided, 5) &&
           AT(t_pol_explain_step, action, 8) && AT(t_pol_explain_step, clause, 12) &&
           AT(t_pol_explain_step, reason, 16));
LAYOUT(t_pol_mem_info, 56,
       AT(t_pol_mem_info, description, 8) && AT(t_pol_mem_info, type_name, 16) &&
           AT(t_pol_mem_info, size, 24) && AT(t_pol_mem_info, allocs, 32) &&
           AT(t_pol_mem_info, frees, 40) && AT(t_pol_mem_info, peak, 48));
LAYOUT(t_pol_test_tokens, 20 * 50, 1);
LAYOUT(t_pol_test_finding, 32, 1);
LAYOUT(t_cli_user_ctx, 16, 1);

/* A policy that is not configured rejects, told through the C interface alone. */
int main(void) {
  t_pol_callbacks callbacks = {NULL};
  t_pol_registration record = {"consumer", "P", POL_KIND_ROUTE, POL_DIR_OUT, NULL, NULL, 0, 0};
  t_pol_route_query query;
  t_pol_user* user;
  uint32_t action;
  if (strcmp(pol_version(), POL_VERSION) != 0) return 1;
  if (pol_init(&callbacks) == NULL) return 1;
  user = pol_register(&record);
  pol_pre_execute(&query, POL_KIND_ROUTE);
  action = pol_execute(user, &query);
  pol_post_execute(&query);
  pol_unregister(&user);
  pol_destroy();
  return user == NULL && action == POL_REJECT ? 0 : 1;
}
