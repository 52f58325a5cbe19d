/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_clause.h - match and set clauses of a sequence.
 *
 * A match clause is a condition, a set clause a rewrite that an accept applies. Adding a clause
 * that is there with the same value changes nothing; another value replaces it. A clause that names
 * a list registers the sequence on that list, which is made if it does not exist yet.
 *
 * Shapes   all numbers host byte order; list names: NUL-terminated, their first 63 bytes count.
 * Result   adds return the sequence's clauses, or null: no context or sequence, or (list clauses)
 *          no memory; then the clause stays configured with the list it named before, if that still
 *          exists.
 * Changed  set to 1 when something really changed, never cleared; users of the policy are queued.
 * Aborts   a stored TLOC or originator of a family that is neither IPv4 nor IPv6 fails an
 *          assertion.
 */
#ifndef POLICY_POL_CLAUSE_H
#define POLICY_POL_CLAUSE_H

#include "policy/pol_types.h"

/* Sets what the sequence matches on; another type than before drops all match clauses first. */
POL_API t_pol_match* pol_entry_match_add(t_pol_ctx* ctx, t_pol_block* block, t_pol_entry* entry,
                                         uint32_t match_type, uint8_t* changed);
POL_API void pol_entry_match_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

/* Binds the set clauses to the sequence's policy and returns them. */
POL_API t_pol_set* pol_entry_set_add(t_pol_ctx* ctx, t_pol_entry* entry);
/* On purpose: the policy goes on saying that it sets a TLOC or a service (pol_handle_sets_tloc). */
POL_API void pol_entry_set_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_site_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                   const char* name, uint8_t* changed);
POL_API void pol_entry_match_site_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_site_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t site,
                                              uint8_t* changed);
POL_API void pol_entry_match_site_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                   const char* name, uint8_t* changed);
POL_API void pol_entry_match_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

/* Copied; an IPv4 TLOC by its first 4 address bytes. */
POL_API t_pol_match* pol_entry_match_tloc_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                              const t_tloc_id* tloc, uint8_t* changed);
POL_API void pol_entry_match_tloc_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_pfx_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  const char* name, uint8_t* changed);
POL_API void pol_entry_match_pfx_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_tag_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t tag,
                                             uint8_t* changed);
POL_API void pol_entry_match_tag_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_preference_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                    uint32_t preference, uint8_t* changed);
POL_API void pol_entry_match_preference_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                               uint8_t* changed);

POL_API t_pol_match* pol_entry_match_domain_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t domain,
                                                uint8_t* changed);
POL_API void pol_entry_match_domain_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_vpn_id_add(t_pol_ctx* ctx, t_pol_entry* entry, uint64_t vpn,
                                                uint8_t* changed);
POL_API void pol_entry_match_vpn_id_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_vpn_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  const char* name, uint8_t* changed);
POL_API void pol_entry_match_vpn_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

/* `code` names an origin protocol and its sub-type. Codes without a meaning (8 to 10, above 14)
 * change nothing. */
POL_API t_pol_match* pol_entry_match_origin_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t code,
                                                uint8_t* changed);
POL_API void pol_entry_match_origin_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_originator_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                    const t_ipaddr* originator, uint8_t* changed);
POL_API void pol_entry_match_originator_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                               uint8_t* changed);

POL_API t_pol_match* pol_entry_match_carrier_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                 uint8_t carrier, uint8_t* changed);
POL_API void pol_entry_match_carrier_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_group_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t group,
                                               uint8_t* changed);
POL_API void pol_entry_match_group_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_src_port_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t port,
                                                  uint8_t* changed);
POL_API void pol_entry_match_src_port_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_dst_port_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t port,
                                                  uint8_t* changed);
POL_API void pol_entry_match_dst_port_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

/* `dscp` is the index that pol_util_dscp_str names. */
POL_API t_pol_match* pol_entry_match_dscp_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t dscp,
                                              uint8_t* changed);
POL_API void pol_entry_match_dscp_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

/* On purpose: the add marks the DSCP clause as configured (a protocol match shows as "DSCP"), so
 * that every add of a protocol counts as a change; the delete looks at the protocol's own mark. */
POL_API t_pol_match* pol_entry_match_proto_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t proto,
                                               uint8_t* changed);
POL_API void pol_entry_match_proto_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_color_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t color,
                                               uint8_t* changed);
POL_API void pol_entry_match_color_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_match* pol_entry_match_color_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                    const char* name, uint8_t* changed);
POL_API void pol_entry_match_color_list_delete(t_pol_ctx* ctx, t_pol_entry* entry,
                                               uint8_t* changed);

/* Setting a TLOC, TLOC list or service also marks the policy as doing so (pol_handle_sets_tloc and
 * siblings); on purpose: deleting one unmarks it even if another sequence still sets the same. */
POL_API t_pol_set* pol_entry_set_tag_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t tag,
                                         uint8_t* changed);
POL_API void pol_entry_set_tag_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_tloc_add(t_pol_ctx* ctx, t_pol_entry* entry, const t_tloc_id* tloc,
                                          uint8_t* changed);
POL_API void pol_entry_set_tloc_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_preference_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                uint32_t preference, uint8_t* changed);
POL_API void pol_entry_set_preference_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_vpn_id_add(t_pol_ctx* ctx, t_pol_entry* entry, uint64_t vpn,
                                            uint8_t* changed);
POL_API void pol_entry_set_vpn_id_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_vpn_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                              uint8_t* changed);
POL_API void pol_entry_set_vpn_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                               uint8_t* changed);
POL_API void pol_entry_set_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

POL_API t_pol_set* pol_entry_set_service_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t service,
                                             const t_tloc_id* tloc, uint64_t vpn, uint8_t* changed);
POL_API void pol_entry_set_service_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);

#endif
