// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_action_internal.h - resolving services and TLOCs, for actions and labels.
#pragma once

#include "core/pol_context_internal.h"

namespace pol {

// Whether it has an address other than zero; without one it is no TLOC.
bool tloc_given(const t_tloc_id& tloc);

// What the host knows of a sequence's service, or of one TLOC.
struct Resolution {
  uint32_t label;  // 0: none
  t_tloc_id tloc;  // that the label belongs to
  t_pol_service_result result;
};

// Asks for the sequence's service in its VPN. `wanted` is the TLOC that it is asked for, or zero.
Resolution resolve_service(t_pol_ctx* ctx, const t_pol_entry& entry, const t_tloc_id& wanted);

// The label of one of the sequence's TLOCs, 0 for none.
uint32_t resolve_label(t_pol_ctx* ctx, const t_pol_entry& entry, const t_tloc_id& tloc);

enum class Resolved {
  kAll,
  kSome,     // memory ran out after some of several TLOCs
  kNoMemory  // memory ran out for the only one
};

// Gives the sequence the TLOCs that its service resolves to, in place of those it has.
[[nodiscard]] Resolved service_tlocs_replace(t_pol_ctx* ctx, t_pol_entry* entry,
                                             const t_tloc_id& wanted);

}  // namespace pol
