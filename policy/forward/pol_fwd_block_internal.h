// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_block_internal.h - the life of forwarding policies (data and perf route): blocks that
// hold a tree of VPN lists instead of sequences.
#pragma once

#include "core/pol_context_internal.h"
#include "policy/pol_fwd_block.h"

namespace pol {

inline bool is_forwarding(uint32_t kind) {
  return kind == POL_KIND_DATA || kind == POL_KIND_PERF_ROUTE;
}

// Whether the sequence has forwarding clauses. A default action has none, whatever the policy's kind.
inline bool is_forwarding(const t_pol_entry& entry) {
  return entry.block != nullptr && is_forwarding(entry.block->kind) &&
         &entry != &entry.block->default_action;
}

// Type of a policy's record in the XML cache; 0 for kinds that have none.
int32_t xml_type_of(uint32_t kind);

// Frees a block that was deleted while it had users, once the last of them is gone.
void fwd_block_release_if_orphaned(t_pol_ctx* ctx, t_pol_block* block);

// Frees what a deleted sequence left behind, once neither DNS nor SaaS application lists know it.
void fwd_leftover_release(t_pol_fwd_user* user);

}  // namespace pol
