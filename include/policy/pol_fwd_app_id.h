/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_app_id.h - application ids: named applications that a data policy matches on.
 *
 * The library keeps no content, only who uses the application id, so that a change of it reaches
 * their policies. One is made by its first mention, a change or a use, and goes with its last user,
 * or with its configuration while nobody uses it.
 *
 * Status  0 done; 1 no memory (nothing changed); 7 null object or record, or no user of it; 15 no
 *         context.
 * Order   users are told and shown as they came; objects by name, bytewise.
 * Threads none of its own: the host serialises every call on one context.
 */
#ifndef POLICY_POL_FWD_APP_ID_H
#define POLICY_POL_FWD_APP_ID_H

#include "policy/pol_types.h"

POL_API uint32_t pol_fwd_app_id_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_fwd_app_id_main_deinit(t_pol_ctx* ctx);

/* Anything of it changed: its text is to be fetched again, its users' policies are told. */
POL_API uint32_t pol_fwd_app_id_entry_change(t_pol_ctx* ctx, const char* name);

/* On purpose: one that is used stays as it is, and nobody is told. */
POL_API uint32_t pol_fwd_app_id_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_fwd_app_id* pol_fwd_app_id_user_add(t_pol_ctx* ctx, const char* name,
                                              t_pol_fwd_user* user);
POL_API uint32_t pol_fwd_app_id_user_remove(t_pol_ctx* ctx, t_fwd_app_id* node,
                                            t_pol_fwd_user* user);

#endif
