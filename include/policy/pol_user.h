/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_user.h - consumers of a policy and their change notification.
 *
 * A user applies one policy of one kind in one direction. Every change of that policy, or of a list
 * it names, puts the user on the change list, once; pol_user_chg_list_notify_all calls the batch
 * back.
 *
 * Null     a null context, name, record or policy is answered with null or does nothing.
 * Threads  none of its own: the host serialises every call on one context.
 */
#ifndef POLICY_POL_USER_H
#define POLICY_POL_USER_H

#include "policy/pol_types.h"

/* Registers a user with g_pol_ctx_p and returns its handle, valid until pol_unregister or
 * pol_destroy (what it is good for then is said there). The policy is made, empty and rejecting, if
 * it is not configured yet. A user of that kind, direction and name that exists is returned as it
 * is: the first registration's policy and callbacks stay. A direction without a meaning is kept.
 * Null without a context, for an unknown kind and when memory runs out. */
POL_API t_pol_user* pol_register(const t_pol_registration* record);

/* Forgets the user and sets the handle to null. A null pointer or handle does nothing. */
POL_API void pol_unregister(t_pol_user** handle);

POL_API uint32_t pol_user_init(t_pol_ctx* ctx);
POL_API void pol_user_destroy(t_pol_ctx* ctx);

POL_API t_pol_user* pol_user_find(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                  uint32_t direction, uintptr_t* where);
POL_API t_pol_user* pol_user_find_or_create(t_pol_ctx* ctx, const char* name,
                                            const char* policy_name, uint32_t kind,
                                            uint32_t direction, t_pol_change_cb change,
                                            t_pol_resolve_cb resolve, uint64_t reserved,
                                            uint64_t user_arg);
POL_API void pol_user_find_and_delete(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                      uint32_t direction);
/* `remove_from_tree` says nothing that the user does not know itself. */
POL_API void pol_user_delete(t_pol_ctx* ctx, t_pol_user* user, uint8_t remove_from_tree);

/* Puts a user without a policy at the end of this one's; the policy is made if need be. Null for a
 * user who has one. */
POL_API t_pol_block* pol_block_user_add(t_pol_ctx* ctx, const char* policy_name, uint32_t kind,
                                        t_pol_user* user);
/* Takes the user off the policy and off the change list; nothing when it is not among its users. */
POL_API void pol_block_user_delete(t_pol_ctx* ctx, t_pol_block* block, t_pol_user* user);

/* Queues a user for the next notification, behind those queued; once queued, nothing. */
POL_API void pol_user_chg_list_add(t_pol_ctx* ctx, t_pol_user* user);
POL_API void pol_user_chg_list_delete(t_pol_ctx* ctx, t_pol_user* user);

/* Queues every user of the policy; nothing while the context is being destroyed. */
POL_API void pol_block_users_add_to_chg_list(t_pol_ctx* ctx, t_pol_block* block);

/* Calls every user back that is queued when the call begins, once each, in queue order. Users that
 * a callback queues wait for the next call; a call from within a callback does nothing. */
POL_API void pol_user_chg_list_notify_all(t_pol_ctx* ctx);

/* Calls one user, or every user of a policy, back now; nothing from within a callback. */
POL_API void pol_user_notify(t_pol_ctx* ctx, t_pol_user* user);
POL_API void pol_block_user_notify_all(t_pol_ctx* ctx, t_pol_block* block);

#endif
