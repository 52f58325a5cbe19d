/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_vpn_list.h - VPN lists: named sets of VPN-id ranges.
 *
 * As site lists (pol_site_list.h), with three kinds of user: match clauses, set clauses (action)
 * and data policies (fwd-pol). A list marks itself changed when its text at the management agent
 * must be fetched again: on creation, on every add of a new range and on every delete.
 *
 * Shapes  low, high: VPN ids, inclusive, host order, kept as 64 bits.
 * Status, order, threads: as site lists.
 */
#ifndef POLICY_POL_VPN_LIST_H
#define POLICY_POL_VPN_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_vpn_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_vpn_list_main_deinit(t_pol_ctx* ctx);

POL_API uint32_t pol_vpn_list_add_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                        uint32_t high);
POL_API t_pol_vpn_entry* pol_vpn_list_find_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                                 uint32_t high);
/* On purpose: a range that is not there still marks the list changed, though it tells nobody. */
POL_API uint32_t pol_vpn_list_del_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                        uint32_t high);
POL_API uint32_t pol_vpn_list_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_vpn_list* pol_vpn_list_match_user_add(t_pol_ctx* ctx, const char* name,
                                                t_pol_clause_user* record);
POL_API t_vpn_list* pol_vpn_list_action_user_add(t_pol_ctx* ctx, const char* name,
                                                 t_pol_clause_user* record);
POL_API t_vpn_list* pol_vpn_list_fwd_pol_user_add(t_pol_ctx* ctx, const char* name,
                                                  t_pol_fwd_vpn_entry* record);
POL_API uint32_t pol_vpn_list_match_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                                t_pol_clause_user* record);
POL_API uint32_t pol_vpn_list_action_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                                 t_pol_clause_user* record);
POL_API uint32_t pol_vpn_list_fwd_pol_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                                  t_pol_fwd_vpn_entry* record);

/* Walk the lists in name order; null at the end. */
POL_API t_vpn_list* pol_vpn_list_first(t_pol_ctx* ctx);
POL_API t_vpn_list* pol_vpn_list_next(t_pol_ctx* ctx, t_vpn_list* list);

#endif
