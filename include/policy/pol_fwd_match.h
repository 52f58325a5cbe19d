/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_match.h - what sequences of data and app-route policies match on by name: application
 * lists, prefix lists, an application id; and the SLA class of app-route policies.
 *
 * Naming an object makes it if need be and registers the sequence as its user, so that a change of
 * the object reaches the users of the policy.
 *
 * By path  block, vpn_list, sequence lead to the sequence; a part that is not there: nothing
 *          happens. A kind other than data and perf route ends the process. `name` null or "" ends
 *          the match. The name in force again changes nothing.
 * In hand  an add returns the sequence's record, null when the object cannot be made; a delete of
 *          what is not there does nothing. `changed` is set to 1 when anything changed.
 * Shapes   names of objects: their first 63 bytes count. sequence: all 32 bits count, so that only
 *          numbers up to 65535 find anything.
 * Memory   when it runs out while a match changes its object, the match stays configured and goes
 *          on referring to the old one while that lives, without being told of its changes.
 */
#ifndef POLICY_POL_FWD_MATCH_H
#define POLICY_POL_FWD_MATCH_H

#include "policy/pol_types.h"

POL_API void pol_fwd_entry_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                        const char* vpn_list, uint32_t sequence, const char* name);
POL_API void pol_fwd_entry_dns_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                            const char* vpn_list, uint32_t sequence,
                                            const char* name);
POL_API void pol_fwd_entry_saas_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                             const char* vpn_list, uint32_t sequence,
                                             const char* name);
POL_API void pol_fwd_entry_src_pfx_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                       const char* vpn_list, uint32_t sequence, const char* name);
POL_API void pol_fwd_entry_dst_pfx_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                       const char* vpn_list, uint32_t sequence, const char* name);
POL_API void pol_fwd_entry_src_pfx6_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                        const char* vpn_list, uint32_t sequence, const char* name);
POL_API void pol_fwd_entry_dst_pfx6_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                        const char* vpn_list, uint32_t sequence, const char* name);
POL_API void pol_fwd_entry_app_id_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                      const char* vpn_list, uint32_t sequence, const char* name);

/* Perf route only: another kind ends the process. `option` (strict) and `value` (mask of preferred
 * colors) go with the class. Unless `remove`, no name does nothing. */
POL_API void pol_fwd_entry_sla_class_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                         const char* vpn_list, uint32_t sequence, const char* name,
                                         uint8_t option, uint32_t value, uint8_t remove);

POL_API t_pol_fwd_user* pol_fwd_entry_match_src_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                         const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_match_src_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                                 uint8_t* changed);
POL_API t_pol_fwd_user* pol_fwd_entry_match_dst_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                         const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_match_dst_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                                 uint8_t* changed);
POL_API t_pol_fwd_user* pol_fwd_entry_match_src6_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                          const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_match_src6_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  uint8_t* changed);
POL_API t_pol_fwd_user* pol_fwd_entry_match_dst6_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                          const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_match_dst6_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  uint8_t* changed);
POL_API t_pol_fwd_user* pol_fwd_entry_match_app_id_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                       const char* name, uint8_t* changed);
POL_API void pol_fwd_entry_match_app_id_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                               uint8_t* changed);

/* On purpose: on the class in force only `option` and `value` change and the caller queues the
 * policy's users. A null name, or a policy that is not perf route, ends the process. */
POL_API t_pol_fwd_user* pol_fwd_entry_sla_class_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                    const char* name, uint8_t option,
                                                    uint32_t value, uint8_t* changed);
POL_API void pol_fwd_entry_sla_class_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

#endif
