/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_block.h - the part of data and app-route policies that other policies do not have: a tree
 * of the VPN lists that they apply to.
 */
#ifndef POLICY_POL_FWD_BLOCK_H
#define POLICY_POL_FWD_BLOCK_H

#include "kel/avl.h"
#include "policy/pol_types.h"

/* Makes the policy's tree of VPN lists, empty. Returns 0. */
POL_API uint32_t pol_fwd_block_init(t_pol_ctx* ctx, t_pol_block* block);

/* Deletes the policy, taking it out of `tree` when `remove_from_tree` is not 0 (else the caller has
 * done so). With users it stays, empty, until the last of them goes; they are queued. */
POL_API void pol_fwd_block_delete(t_pol_ctx* ctx, avl_tree* tree, t_pol_block* block,
                                  uint8_t remove_from_tree);

#endif
