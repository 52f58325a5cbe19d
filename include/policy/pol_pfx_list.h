/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_pfx_list.h - prefix lists: named lists of IP prefixes, each with an operator on the length.
 *
 * As site lists (pol_site_list.h), with match clauses as the one kind of user. An element is found
 * by its family, address and length, host bits included; an add overwrites its operator and bounds.
 *
 * Aborts  a look-up that meets a stored prefix of its own family, neither IPv4 nor IPv6, fails an
 *         assertion.
 * Status, order, threads: as site lists.
 */
#ifndef POLICY_POL_PFX_LIST_H
#define POLICY_POL_PFX_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_pfx_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_pfx_list_main_deinit(t_pol_ctx* ctx);

/* Notifies even when nothing changes. */
POL_API uint32_t pol_pfx_list_entry_add(t_pol_ctx* ctx, const char* name,
                                        const t_pol_pfx_record* record);
POL_API uint32_t pol_pfx_list_del_entry(t_pol_ctx* ctx, const char* name,
                                        const t_pol_pfx_record* record);
POL_API uint32_t pol_pfx_list_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_pfx_list* pol_pfx_list_user_add(t_pol_ctx* ctx, const char* name,
                                          t_pol_clause_user* record);
POL_API uint32_t pol_pfx_list_user_remove(t_pol_ctx* ctx, t_pfx_list* list,
                                          t_pol_clause_user* record);

#endif
