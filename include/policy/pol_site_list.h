/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_site_list.h - site lists: named sets of site-id ranges.
 *
 * A sequence of a route policy matches a route's originating site against a site list; one outside
 * component per list may be told when it changes. A list is made by its first mention (an entry
 * added, or a user naming a list not configured yet). Deleting its configuration or removing its
 * last user frees it once it has neither entries nor users; deleting its last entry does not.
 *
 * Shapes  name: NUL-terminated, its first 63 bytes count. low, high: site ids, inclusive, host
 *         order; one site is low == high. Distinct ranges may overlap and are never merged.
 * Status  0 done; 1 no memory (nothing changed); 7 null list or record, one that is no user of the
 *         list, or a length without a meaning; 15 no context. A null name or record of an element
 *         that is to go does nothing.
 * Order   entries dump and walk as added; lists by name, bytewise.
 * Threads none of its own: the host serialises every call on one context.
 */
#ifndef POLICY_POL_SITE_LIST_H
#define POLICY_POL_SITE_LIST_H

#include "policy/pol_types.h"

POL_API uint32_t pol_site_list_main_init(t_pol_ctx* ctx);
/* Ends the process if a policy still uses a list. A registered list user stays allocated, its list
 * null. */
POL_API uint32_t pol_site_list_main_deinit(t_pol_ctx* ctx);

/* Adds [low, high], creating the list if need be, then calls the list user and notifies the
 * policies that use it. A range already there changes nothing and tells nobody. */
POL_API uint32_t pol_site_list_add_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                         uint32_t high);
/* The very range, or null. */
POL_API t_site_entry* pol_site_list_find_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                               uint32_t high);
/* Removes that very range and tells the same; an absent one is no error and tells nobody. */
POL_API uint32_t pol_site_list_del_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                         uint32_t high);

/* Empties the list. On purpose: tells nobody; users see an empty list on their next evaluation. */
POL_API uint32_t pol_site_list_cfg_del(t_pol_ctx* ctx, const char* name);

/* Registers a clause at the end of the list's users and returns the list; null when memory runs
 * out. */
POL_API t_site_list* pol_site_list_pol_user_add(t_pol_ctx* ctx, const char* name,
                                                t_pol_clause_user* record);
POL_API uint32_t pol_site_list_pol_user_remove(t_pol_ctx* ctx, t_site_list* list,
                                               t_pol_clause_user* record);

/* Registers the list's one outside user; the first registrant wins and is returned to later ones.
 * When memory for the record runs out the list stays, empty. */
POL_API t_pol_list_user* pol_site_list_user_add(t_pol_ctx* ctx, const char* name,
                                                t_pol_list_change_cb change, void* arg);
/* Frees the record. */
POL_API uint32_t pol_site_list_user_remove(t_pol_ctx* ctx, t_pol_list_user* user);

#endif
