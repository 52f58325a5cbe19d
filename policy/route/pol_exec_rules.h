// SPDX-License-Identifier: Apache-2.0
//
// pol_exec_rules.h - the rules of evaluation, with an observer that is told what happens.
//
// The rules stand here once. pol_execute runs them with an observer that the compiler removes,
// pol_explain with one that reports.
//
// A sequence is tried when its match type is the query's (route, tloc or service). It decides when
// every configured clause holds, tested in this order; the bit is reported in `matched`:
//
//   clause      holds when                                                        bit
//   tag         present and equal                                                 yes
//   preference  present and equal                                                 yes
//   domain      present and equal                                                 yes
//   group       present and one of the route's groups is equal                    yes
//   vpn id      the query's VPN is equal                                          yes
//   vpn list    a range holds the query's VPN                                     no
//   tloc        there is a TLOC, and it is equal                                  yes
//   tloc list   there is a TLOC, and the list has it                              no
//   site        present and equal                                                 yes
//   site list   a range holds the site, present or not                            no
//   pfx list    an element matches the query's prefix                             no
//   origin      present and equal, but for the sub-types of protocol 4            yes
//   originator  present and equal                                                 yes
//   carrier     present and equal                                                 yes
//   color       there is a TLOC, and its color is equal                           yes
//   color list  there is a TLOC, and the list has its color                       no
//
// The TLOC is the query's own in a sequence of match type tloc, else the route's, if it carries
// one. Clauses that name a list never report a bit: on purpose, `matched` tells of single values.
#pragma once

#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"
#include "policy/pol_exec.h"

namespace pol {

struct SilentObserver {
  void type_differs(const t_pol_entry&) {}
  void failed(const t_pol_entry&, uint32_t /*clause*/) {}
  void decided(const t_pol_entry&, bool /*by_default*/, uint32_t /*action*/) {}
};

// A route's TLOC as the clauses of a sequence see it; null when there is none.
inline const t_tloc_id* tloc_source(const t_pol_entry& entry, const t_pol_route_query& query,
                                    const t_pol_route_attr& attr) {
  if (entry.match.type == POL_MATCH_TLOC) return &query.tloc;
  return (attr.present & POL_ATTR_TLOC) != 0 ? &attr.tloc : nullptr;
}

bool match_group(const t_pol_route_attr& attr, uint32_t group);
bool match_vpn_list(const t_vpn_list* list, uint64_t vpn);
bool match_tloc_list(const t_tloc_list* list, const t_tloc_id& tloc);
bool match_color_list(const t_color_list* list, uint8_t color);
bool match_pfx_list(const t_pfx_list* list, const t_ipprefix& prefix);
bool match_origin(const t_pol_match& match, const t_pol_route_attr& attr);

// Starts the query from the caller's attributes.
void copy_attributes(t_pol_route_query* query);

// Applies the set clauses of what decided. Returns the action, turned into a reject when a TLOC was
// to be set and none resolves.
uint32_t apply_sets(const t_pol_user& user, const t_pol_set& set, uint32_t flags,
                    t_pol_route_query* query);

template <class Observer>
bool entry_matches(const t_pol_entry& entry, const t_pol_route_attr& attr, t_pol_route_query* query,
                   Observer& observer) {
  const t_pol_match& match = entry.match;
  const uint32_t flags = entry.match_flags;
  uint32_t matched = 0;
  query->matched = 0;

  if (match.type != query->match_type || match.type < POL_MATCH_ROUTE ||
      match.type > POL_MATCH_SERVICE) {
    observer.type_differs(entry);
    return false;
  }

  // Notes the outcome of one clause.
  auto fails = [&](uint32_t clause, bool holds, bool reported) {
    if (!holds) {
      query->matched = matched;
      observer.failed(entry, clause);
      return true;
    }
    if (reported) matched |= clause;
    return false;
  };
  auto has = [flags](uint32_t clause) { return (flags & clause) != 0; };
  auto present = [&attr](uint32_t bit) { return (attr.present & bit) != 0; };

  if (has(POL_MATCH_F_TAG) &&
      fails(POL_MATCH_F_TAG, present(POL_ATTR_TAG) && attr.tag == match.tag, true)) {
    return false;
  }
  if (has(POL_MATCH_F_PREF) &&
      fails(POL_MATCH_F_PREF, present(POL_ATTR_PREF) && attr.preference == match.preference,
            true)) {
    return false;
  }
  if (has(POL_MATCH_F_DOMAIN) &&
      fails(POL_MATCH_F_DOMAIN, present(POL_ATTR_DOMAIN) && attr.domain == match.domain, true)) {
    return false;
  }
  if (has(POL_MATCH_F_GROUP) &&
      fails(POL_MATCH_F_GROUP, present(POL_ATTR_GROUP) && match_group(attr, match.group), true)) {
    return false;
  }
  if (has(POL_MATCH_F_VPN_ID) && fails(POL_MATCH_F_VPN_ID, query->vpn == match.vpn_id, true)) {
    return false;
  }
  if (has(POL_MATCH_F_VPN_LIST) &&
      fails(POL_MATCH_F_VPN_LIST, match_vpn_list(list_of<t_vpn_list>(match.vpn_list), query->vpn),
            false)) {
    return false;
  }
  const t_tloc_id* tloc = tloc_source(entry, *query, attr);
  if (has(POL_MATCH_F_TLOC) &&
      fails(POL_MATCH_F_TLOC, tloc != nullptr && tloc_equal(*tloc, match.tloc), true)) {
    return false;
  }
  if (has(POL_MATCH_F_TLOC_LIST) &&
      fails(POL_MATCH_F_TLOC_LIST,
            tloc != nullptr && match_tloc_list(list_of<t_tloc_list>(match.tloc_list), *tloc),
            false)) {
    return false;
  }
  if (has(POL_MATCH_F_SITE) &&
      fails(POL_MATCH_F_SITE, present(POL_ATTR_SITE) && attr.site == match.site, true)) {
    return false;
  }
  if (has(POL_MATCH_F_SITE_LIST) &&
      fails(POL_MATCH_F_SITE_LIST,
            pol_exec_match_site_id_to_site_list(list_of<t_site_list>(match.site_list), attr.site) !=
                0,
            false)) {
    return false;
  }
  if (has(POL_MATCH_F_PFX_LIST) &&
      fails(POL_MATCH_F_PFX_LIST,
            match_pfx_list(list_of<t_pfx_list>(match.pfx_list), query->prefix), false)) {
    return false;
  }
  if (has(POL_MATCH_F_ORIGIN) &&
      fails(POL_MATCH_F_ORIGIN, present(POL_ATTR_ORIGIN) && match_origin(match, attr), true)) {
    return false;
  }
  if (has(POL_MATCH_F_ORIGINATOR) &&
      fails(POL_MATCH_F_ORIGINATOR,
            present(POL_ATTR_ORIGINATOR) && address_equal(attr.originator, match.originator),
            true)) {
    return false;
  }
  if (has(POL_MATCH_F_CARRIER) &&
      fails(POL_MATCH_F_CARRIER, present(POL_ATTR_CARRIER) && attr.carrier == match.carrier,
            true)) {
    return false;
  }
  if (has(POL_MATCH_F_COLOR) &&
      fails(POL_MATCH_F_COLOR, tloc != nullptr && tloc->color == match.color, true)) {
    return false;
  }
  if (has(POL_MATCH_F_COLOR_LIST) &&
      fails(
          POL_MATCH_F_COLOR_LIST,
          tloc != nullptr && match_color_list(list_of<t_color_list>(match.color_list), tloc->color),
          false)) {
    return false;
  }
  query->matched = matched;
  return true;
}

template <class Observer>
uint32_t exec_route(t_pol_user* user, t_pol_route_query* query, Observer& observer) {
  static constexpr t_pol_route_attr kNoAttributes = {};
  t_pol_block* block = user->block;
  if (block == nullptr) return POL_REJECT;
  const t_pol_route_attr& attr = query->attr != nullptr ? *query->attr : kNoAttributes;

  const t_pol_entry* decider = nullptr;
  for (const t_pol_entry& entry : block->in_order) {
    if (entry_matches(entry, attr, query, observer)) {
      decider = &entry;
      break;
    }
  }
  const bool by_default = decider == nullptr;
  if (by_default) decider = &block->default_action;
  uint32_t action = decider->action;
  if (action == POL_ACCEPT) action = apply_sets(*user, decider->set, decider->set_flags, query);
  observer.decided(*decider, by_default, action);
  return action;
}

}  // namespace pol
