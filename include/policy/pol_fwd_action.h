/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_action.h - what sequences of data and app-route policies do: the VPN to forward into, a
 * TLOC, a TLOC list, a service, a policer.
 *
 * A sequence keeps its own copy of the TLOCs that its TLOC list holds or that its service resolves
 * to; forwarding and labels (pol_fwd_label.h) go by that copy. An explicit TLOC and a TLOC list go
 * before a service.
 *
 * By path, in hand, shapes, memory: as pol_fwd_match.h. A kind that an operation does not serve
 * ends the process.
 * Users    every operation queues the users of the policy, unless it says otherwise.
 */
#ifndef POLICY_POL_FWD_ACTION_H
#define POLICY_POL_FWD_ACTION_H

#include "policy/pol_types.h"

POL_API void pol_fwd_entry_vpn_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                   const char* vpn_list, uint32_t sequence, uint64_t vpn);

/* Data policies only. Null removes the TLOC. Otherwise an address of zero, or of neither family,
 * and a color of 0 leave what is stored; so does the encapsulation unless `encap_given`. On
 * purpose: removing one sequence's TLOC takes the policy for one without TLOCs, which
 * pol_fwd_eval_label passes over. */
POL_API void pol_fwd_entry_tloc_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                    const char* vpn_list, uint32_t sequence, uint8_t encap_given,
                                    const t_tloc_id* tloc);

/* A service that is not 0 is set; otherwise it is deleted (`remove`) or, when the policy has
 * services, the one that the sequence has is resolved again. Resolving replaces the sequence's
 * TLOCs, unless it has a TLOC list. Nobody is queued when the only TLOC found no memory. */
POL_API void pol_fwd_entry_svc_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                   const char* vpn_list, uint32_t sequence, uint16_t service,
                                   uint8_t local, uint8_t remove);

/* Data policies only. */
POL_API void pol_fwd_entry_tloc_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                         const char* vpn_list, uint32_t sequence, const char* name);

/* Where the list's TLOCs find no memory the sequence ends up without a TLOC list. */
POL_API t_pol_fwd_user* pol_fwd_entry_set_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                        const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_set_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                                uint8_t* changed);

/* Gives the sequence the TLOCs of the list anew. 0; 1 when memory ran out: then it has no TLOC list
 * any more; 7 for a null or a record that outlived its sequence. Queues nobody but in that case. */
POL_API uint32_t pol_fwd_upd_set_internal_tloc_list(t_pol_ctx* ctx, t_pol_fwd_user* user,
                                                    t_tloc_list* list);

POL_API void pol_fwd_entry_policer_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                       const char* vpn_list, uint32_t sequence, const char* name);
POL_API t_pol_fwd_user* pol_fwd_entry_set_policer_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                      const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_set_policer_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

#endif
