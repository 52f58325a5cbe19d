/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_tloc_list.h - TLOC lists: named lists of transport locators, each with a preference.
 *
 * As site lists (pol_site_list.h), but an entry is found by its TLOC (family, address, color and
 * encapsulation) and an add overwrites its preference. Users are match clauses; action users are
 * set clauses of route policies and actions of data policies. A list marks itself changed as VPN
 * lists do, and label pending when the labels of data policies that use it must be computed again.
 *
 * Aborts  a look-up that meets a stored TLOC of its own family, neither IPv4 nor IPv6, fails an
 *         assertion.
 * Status, order, threads: as site lists.
 */
#ifndef POLICY_POL_TLOC_LIST_H
#define POLICY_POL_TLOC_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_tloc_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_tloc_list_main_deinit(t_pol_ctx* ctx);

POL_API t_tloc_list* pol_tloc_list_find(t_pol_ctx* ctx, const char* name);
POL_API t_tloc_entry* pol_tloc_list_find_entry(t_pol_ctx* ctx, const char* name,
                                               const t_tloc_id* tloc);

/* A TLOC already there gets the preference and notifies, even if it had that preference. */
POL_API uint32_t pol_tloc_list_add_entry(t_pol_ctx* ctx, const char* name, const t_tloc_id* tloc,
                                         uint32_t preference);
POL_API uint32_t pol_tloc_list_del_entry(t_pol_ctx* ctx, const char* name, const t_tloc_id* tloc);
POL_API uint32_t pol_tloc_list_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_tloc_list* pol_tloc_list_user_add(t_pol_ctx* ctx, const char* name,
                                            t_pol_clause_user* record);
POL_API t_tloc_list* pol_tloc_list_action_user_add(t_pol_ctx* ctx, const char* name,
                                                   t_pol_clause_user* record);
POL_API uint32_t pol_tloc_list_user_remove(t_pol_ctx* ctx, t_tloc_list* list,
                                           t_pol_clause_user* record);
POL_API uint32_t pol_tloc_list_action_user_remove(t_pol_ctx* ctx, t_tloc_list* list,
                                                  t_pol_clause_user* record);

POL_API t_tloc_list* pol_tloc_list_first(t_pol_ctx* ctx);
POL_API t_tloc_list* pol_tloc_list_next(t_pol_ctx* ctx, t_tloc_list* list);

/* Computes the labels of data-policy actions anew whose lists are label pending, then notifies
 * once. `arg` is the host's, passed through. */
POL_API void pol_tloc_list_update_fwd_pol_label(void* arg, t_pol_ctx* ctx);

#endif
