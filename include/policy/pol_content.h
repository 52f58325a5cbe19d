/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_content.h - what route and membership policies and their lists say, value by value: for tools
 * that reason about policy instead of asking it route by route.
 *
 * Order    lists first, by type, then name, each with its elements in the order in which they were
 *          added; then the policies by kind and name, each with its sequences by number and its
 *          default action last.
 * Pointers in a record are valid during the call that hands it over; list ids as long as the list.
 * Threads  none of its own: the host serialises every call on one context. A visitor only reads.
 */
#ifndef POLICY_POL_CONTENT_H
#define POLICY_POL_CONTENT_H

#include "policy/pol_types.h"

/* One element of a list; what its list's type has no use for is zero. */
typedef struct t_pol_content_element {
  uint64_t low; /* of a site or VPN list */
  uint64_t high;
  t_tloc_id tloc; /* of a TLOC list */
  uint16_t color; /* of a color list */
  t_pol_pfx_record prefix;
} t_pol_content_element;

/* One sequence, or a policy's default action. A value means something when its flag is set, a list
 * then may be null still: such a clause never holds. */
typedef struct t_pol_content_sequence {
  uint32_t sequence;
  uint8_t is_default;
  uint32_t action;      /* enum pol_action */
  uint32_t match_type;  /* enum pol_match_type; 0: none, it never decides */
  uint32_t match_flags; /* POL_MATCH_F_* */
  uint32_t set_flags;   /* POL_SET_F_* */

  uint32_t tag;
  uint32_t preference;
  uint32_t domain;
  uint32_t group;
  uint32_t site;
  uint64_t vpn_id;
  uint16_t color;
  uint8_t origin_protocol;
  uint8_t origin_subtype;
  uint8_t carrier;
  t_tloc_id tloc;
  t_ipaddr originator;
  const t_site_list* site_list;
  const t_vpn_list* vpn_list;
  const t_tloc_list* tloc_list;
  const t_color_list* color_list;
  const t_pfx_list* pfx_list;

  uint32_t set_tag;
  uint32_t set_preference;
  uint64_t set_vpn_id;
  t_tloc_id set_tloc;
  uint8_t ultimate_tloc; /* above 1: the route's own TLOC is kept */
  uint16_t set_service;
  t_tloc_id set_service_tloc;
  uint64_t set_service_vpn;
  const t_vpn_list* set_vpn_list;
  const t_tloc_list* set_tloc_list;
} t_pol_content_sequence;

/* Each may be null. */
typedef struct t_pol_content_visitor {
  /* `type` is POL_GRAPH_SITE_LIST to POL_GRAPH_PREFIX_LIST of pol_graph.h. */
  void (*list)(void* arg, uint32_t type, const void* id, const char* name);
  void (*element)(void* arg, const t_pol_content_element* element);
  void (*policy)(void* arg, uint32_t kind, const char* name);
  void (*sequence)(void* arg, const t_pol_content_sequence* sequence);
  void* arg;
} t_pol_content_visitor;

/* 0; POL_ENOCTX without a context, POL_EINVAL without a visitor. */
POL_API uint32_t pol_content_walk(t_pol_ctx* ctx, const t_pol_content_visitor* visitor);

#endif
