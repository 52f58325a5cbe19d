/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_block.h - data and app-route policies: the VPN lists that they apply to, and the
 * sequences in each.
 *
 * Kinds   POL_KIND_DATA and POL_KIND_PERF_ROUTE; any other ends the process on purpose.
 * Shapes  block and VPN-list names: their first 127 bytes count; the VPN list itself is made by the
 *         first 63. VPN lists stand in name order, sequences in ascending number.
 * Null    what is not found or, making something, cannot be had for lack of memory.
 */
#ifndef POLICY_POL_FWD_BLOCK_H
#define POLICY_POL_FWD_BLOCK_H

#include "policy/pol_types.h"

struct avl_tree; /* the platform's, which the library keeps policies in */

/* Makes the policy's tree of VPN lists, empty. Returns 0. */
POL_API uint32_t pol_fwd_block_init(t_pol_ctx* ctx, t_pol_block* block);

/* Deletes the policy and takes it out of its tree, should it still stand there; `tree` and
 * `remove_from_tree` say nothing that it does not know itself. With users it stays, empty, until
 * the last of them goes; they are queued. */
POL_API void pol_fwd_block_delete(t_pol_ctx* ctx, struct avl_tree* tree, t_pol_block* block,
                                  uint8_t remove_from_tree);

/* A VPN list of the policy. Making one registers it on the VPN list, which is made if need be, and
 * queues the policy's users. */
POL_API t_pol_fwd_vpn_entry* pol_fwd_vpn_find_or_create(t_pol_ctx* ctx, const char* block,
                                                        uint32_t kind, const char* vpn_list);
POL_API void pol_fwd_vpn_find_and_delete(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                         const char* vpn_list);

/* A sequence in a VPN list that the policy has. On purpose: making and finding one goes by the low
 * 16 bits of its number, every other operation by all 32. Making one queues nobody. */
POL_API t_pol_entry* pol_fwd_entry_find_or_create(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                                  const char* vpn_list, int32_t sequence);

/* Takes the sequence off everything it names and queues the policy's users. On purpose: DNS and
 * SaaS application lists keep its registrations unless they were ended before. They mark the
 * policy's users while there is a policy, and keep the list for the context's life. */
POL_API void pol_fwd_entry_find_and_delete(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                           const char* vpn_list, int32_t sequence);

#endif
