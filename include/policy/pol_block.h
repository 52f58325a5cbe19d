/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_block.h - policies (blocks) and their sequences (entries).
 *
 * A policy is a name, a kind, sequences in ascending number and a default action that decides when
 * no sequence does (reject until configured). It exists from its first mention, be that
 * configuration or a user who registers for it.
 *
 * Shapes   names: NUL-terminated, their first 127 bytes count; ordered bytewise.
 * Changed  `changed` is set to 1 when something really changed and never cleared, so that a caller
 *          can gather it over several calls and notify once (pol_user_chg_list_notify_all). Every
 *          change queues the users of the policy.
 * Misuse   a null context, policy, sequence or name is answered with null or does nothing, and so
 *          is an action or match type without a meaning; `changed` may be null.
 * Threads  none of its own: the host serialises every call on one context.
 */
#ifndef POLICY_POL_BLOCK_H
#define POLICY_POL_BLOCK_H

#include "policy/pol_types.h"

POL_API uint32_t pol_block_init(t_pol_ctx* ctx);
POL_API void pol_block_destroy(t_pol_ctx* ctx);

/* Walk the policies of one kind in name order. Null at the end and for an unknown kind. A block of
 * another kind ends the process on purpose. */
POL_API t_pol_block* pol_block_first(t_pol_ctx* ctx, uint32_t kind);
POL_API t_pol_block* pol_block_next(t_pol_ctx* ctx, t_pol_block* block, uint32_t kind);

/* The policy's name, valid as long as the policy. */
POL_API const char* pol_block_get_name(const t_pol_block* block);

/* Null when absent; then `where`, unless null, is the place in the kind's tree. */
POL_API t_pol_block* pol_block_find(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                    uintptr_t* where);

/* Null for an unknown kind and when memory runs out. */
POL_API t_pol_block* pol_block_find_or_create(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                              uint8_t* changed);

/* Deletes the policy with its sequences. A route, membership or cflowd policy goes even if it has
 * users: they stay registered without a policy, for good, and are queued. A data or app-route
 * policy with users is only emptied and goes with the last of them. An absent policy changes
 * nothing. */
POL_API void pol_block_find_and_delete(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                       uint8_t* changed);

/* Makes the default sequence equal to `record` (clauses and action; list clauses are registered
 * anew) and returns it. Null when memory runs out. */
POL_API t_pol_entry* pol_block_default_action_add(t_pol_ctx* ctx, t_pol_block* block,
                                                  const t_pol_entry* record, uint8_t* changed);

/* Back to a reject without clauses. */
POL_API void pol_block_default_action_delete(t_pol_ctx* ctx, t_pol_block* block, uint8_t* changed);

/* Sequences of a route, membership or cflowd policy; null for any other kind. */
POL_API t_pol_entry* pol_entry_find(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                                    uintptr_t* where);
POL_API t_pol_entry* pol_entry_find_or_create(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                                              uint8_t* changed);
POL_API void pol_entry_find_and_delete(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                                       uint8_t* changed);

/* Walk the sequences of a policy in ascending number. Null at the end, for a null policy and for a
 * data or app-route policy. */
POL_API t_pol_entry* pol_entry_first(t_pol_ctx* ctx, t_pol_block* block);
POL_API t_pol_entry* pol_entry_next(t_pol_ctx* ctx, t_pol_entry* entry);
POL_API uint32_t pol_entry_get_sequence(const t_pol_entry* entry);

/* Orders sequences by number: -1, 0 or 1. */
POL_API int pol_entry_cmp(const void* a, const void* b);

POL_API t_pol_entry* pol_entry_action_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t action,
                                          uint8_t* changed);
POL_API void pol_entry_action_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

#endif
