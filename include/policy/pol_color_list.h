/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_color_list.h - color lists: named sets of TLOC colors (kel/tloc.h names them).
 *
 * As site lists (pol_site_list.h), with match clauses as the one kind of user. Colors keep the
 * order in which they were added.
 */
#ifndef POLICY_POL_COLOR_LIST_H
#define POLICY_POL_COLOR_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_color_list_main_init(t_pol_ctx* ctx);
POL_API uint32_t pol_color_list_main_deinit(t_pol_ctx* ctx);

POL_API t_color_list* pol_color_list_find(t_pol_ctx* ctx, const char* name);
POL_API t_color_entry* pol_color_list_find_entry(t_pol_ctx* ctx, const char* name, uint16_t color);

/* On purpose: a color already there is not added again, yet notifies. */
POL_API uint32_t pol_color_list_add_entry(t_pol_ctx* ctx, const char* name, uint16_t color);
POL_API uint32_t pol_color_list_del_entry(t_pol_ctx* ctx, const char* name, uint16_t color);
POL_API uint32_t pol_color_list_cfg_del(t_pol_ctx* ctx, const char* name);

POL_API t_color_list* pol_color_list_user_add(t_pol_ctx* ctx, const char* name,
                                              t_pol_clause_user* record);
POL_API uint32_t pol_color_list_user_remove(t_pol_ctx* ctx, t_color_list* list,
                                            t_pol_clause_user* record);

#endif
