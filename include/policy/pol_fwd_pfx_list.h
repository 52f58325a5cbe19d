/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_pfx_list.h - the prefix lists of data policies, IPv4 (fwd_pfx) and IPv6 (fwd_pfx6).
 *
 * The library keeps no content, only who uses the list, so that a change of it reaches their
 * policies. One is made by its first mention, a change or a use, and goes with its last user, or
 * with its configuration while nobody uses it.
 *
 * Status  0 done; 1 no memory (nothing changed); 7 null object or record, or no user of it; 15 no
 *         context.
 * Order   users are told and shown as they came; objects by name, bytewise.
 * Threads none of its own: the host serialises every call on one context.
 * Kind    1: the list's prefixes are the source; any other: the destination.
 */
#ifndef POLICY_POL_FWD_PFX_LIST_H
#define POLICY_POL_FWD_PFX_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_fwd_pfx_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_fwd_pfx_list_main_deinit(t_pol_ctx* ctx);

/* Anything of it changed: its text is to be fetched again, its users' policies are told. */
POL_API uint32_t pol_fwd_pfx_list_entry_change(t_pol_ctx* ctx, const char* name);

/* On purpose: one that is used stays as it is, and nobody is told. */
POL_API uint32_t pol_fwd_pfx_list_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_fwd_pfx_list* pol_fwd_pfx_list_user_add(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                                  t_pol_fwd_user* user);
POL_API uint32_t pol_fwd_pfx_list_user_remove(t_pol_ctx* ctx, t_fwd_pfx_list* node, uint32_t kind,
                                              t_pol_fwd_user* user);

/* Walk all in name order; null at the end. */
POL_API t_fwd_pfx_list* pol_fwd_pfx_list_first(t_pol_ctx* ctx);
POL_API t_fwd_pfx_list* pol_fwd_pfx_list_next(t_pol_ctx* ctx, t_fwd_pfx_list* node);

POL_API uint32_t pol_fwd_pfx6_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_fwd_pfx6_list_main_deinit(t_pol_ctx* ctx);

POL_API uint32_t pol_fwd_pfx6_list_entry_change(t_pol_ctx* ctx, const char* name);
POL_API uint32_t pol_fwd_pfx6_list_cfg_del(t_pol_ctx* ctx, const char* name);
POL_API t_fwd_pfx_list* pol_fwd_pfx6_list_user_add(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                                   t_pol_fwd_user* user);
POL_API uint32_t pol_fwd_pfx6_list_user_remove(t_pol_ctx* ctx, t_fwd_pfx_list* node, uint32_t kind,
                                               t_pol_fwd_user* user);
POL_API t_fwd_pfx_list* pol_fwd_pfx6_list_first(t_pol_ctx* ctx);
POL_API t_fwd_pfx_list* pol_fwd_pfx6_list_next(t_pol_ctx* ctx, t_fwd_pfx_list* node);

#endif
