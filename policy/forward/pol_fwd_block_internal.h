// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_block_internal.h - the life of forwarding policies (data and perf route): blocks that
// hold a tree of VPN lists instead of sequences.
#pragma once

#include "core/pol_context_internal.h"
#include "policy/pol_fwd_block.h"

namespace pol {

// What a path leads to; null from the first thing on that is not there. A kind that has no VPN
// lists ends the process.
struct FwdPlace {
  t_pol_block* block;
  t_pol_fwd_vpn_entry* vpn;
  t_pol_entry* entry;
};
FwdPlace fwd_find(t_pol_ctx* ctx, const char* block_name, uint32_t kind, const char* vpn_list,
                  uint32_t sequence);

// Frees the TLOCs that the sequence resolved to.
void fwd_tlocs_clear(t_pol_entry* entry);

}  // namespace pol
