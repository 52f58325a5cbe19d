// SPDX-License-Identifier: Apache-2.0
//
// pol_clause_internal.h - the clauses of a sequence as a whole.
#pragma once

#include <cstring>

#include "base/pol_name.h"
#include "core/pol_block_internal.h"
#include "policy/pol_clause.h"

namespace pol {

// Empty an area of a sequence that no list knows through it (any more): no clauses, everything
// bound to the sequence's policy.
void match_reset(t_pol_entry* entry);
void set_reset(t_pol_entry* entry);

// The whole sequence: no clauses, reject, everything bound to `block`.
void entry_reset(t_pol_entry* entry, t_pol_block* block);

// Whether two sequences have the same clauses configured with the same values, lists by name. What
// clauses that are gone have left behind does not count.
bool clauses_equal(const t_pol_entry& a, const t_pol_entry& b);

// Gives a sequence without clauses those of another, registering it on the lists. False when a list
// could not be had.
[[nodiscard]] bool clauses_copy(t_pol_ctx* ctx, t_pol_entry* to, const t_pol_entry& from);

// Values alike. The _equal forms assert besides that two of one family are IPv4 or IPv6, as stored
// ones are.
bool tloc_same(const t_tloc_id& a, const t_tloc_id& b);
bool address_same(const t_ipaddr& a, const t_ipaddr& b);
bool tloc_equal(const t_tloc_id& a, const t_tloc_id& b);
bool address_equal(const t_ipaddr& a, const t_ipaddr& b);

// The shapes of a clause's operations, for match and set clauses alike. A clause is its bit in a
// word of flags and its value.

struct ClauseSite {
  t_pol_ctx* ctx;
  t_pol_entry* entry;
  uint32_t* flags;
  uint8_t* changed;
};

// Notes a change and queues the users of the policy.
void clause_changed(const ClauseSite& at);

template <class T, class Equal>
void clause_store(const ClauseSite& at, uint32_t bit, T* stored, const T& value, Equal equal) {
  if ((*at.flags & bit) != 0 && equal(*stored, value)) return;
  *at.flags |= bit;
  *stored = value;
  clause_changed(at);
}

template <class T>
void clause_store(const ClauseSite& at, uint32_t bit, T* stored, T value) {
  clause_store(at, bit, stored, value, [](const T& a, const T& b) { return a == b; });
}

// False when the clause was not there.
template <class T>
bool clause_clear(const ClauseSite& at, uint32_t bit, T* stored) {
  if ((*at.flags & bit) == 0) return false;
  *at.flags &= ~bit;
  *stored = {};
  clause_changed(at);
  return true;
}

// Registers the clause on the list of that name, through the family's `kAdd`. False when the list
// cannot be made: on purpose the clause stays configured then, and goes on referring to the list it
// leaves.
template <auto kAdd>
[[nodiscard]] bool clause_name_list(const ClauseSite& at, uint32_t bit, t_pol_clause_user* user,
                                    const char* name) {
  char key[POL_LIST_NAME_SIZE];
  copy_name(key, name);
  if ((*at.flags & bit) != 0 && user->list != nullptr &&
      named_compare(key, user->list->name) == 0) {
    return true;
  }
  *at.flags |= bit;
  if (user->list != nullptr) user_leave(at.ctx, user, Leaving::kStaysStale);
  if (kAdd(at.ctx, name, user) == nullptr) return false;
  clause_changed(at);
  return true;
}

// False when the clause was not there.
bool clause_drop_list(const ClauseSite& at, uint32_t bit, t_pol_clause_user* user);

// The clauses that name lists, in the order in which a sequence leaves its lists.
template <class Area>
struct ListClause {
  uint32_t bit;
  t_pol_clause_user Area::*user;
  Area* (*add)(t_pol_ctx* ctx, t_pol_entry* entry, const char* name, uint8_t* changed);
  void (*remove)(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed);
};

inline constexpr ListClause<t_pol_match> kMatchLists[] = {
    {POL_MATCH_F_COLOR_LIST, &t_pol_match::color_list, pol_entry_match_color_list_add,
     pol_entry_match_color_list_delete},
    {POL_MATCH_F_PFX_LIST, &t_pol_match::pfx_list, pol_entry_match_pfx_list_add,
     pol_entry_match_pfx_list_delete},
    {POL_MATCH_F_SITE_LIST, &t_pol_match::site_list, pol_entry_match_site_list_add,
     pol_entry_match_site_list_delete},
    {POL_MATCH_F_TLOC_LIST, &t_pol_match::tloc_list, pol_entry_match_tloc_list_add,
     pol_entry_match_tloc_list_delete},
    {POL_MATCH_F_VPN_LIST, &t_pol_match::vpn_list, pol_entry_match_vpn_list_add,
     pol_entry_match_vpn_list_delete},
};

inline constexpr ListClause<t_pol_set> kSetLists[] = {
    {POL_SET_F_VPN_LIST, &t_pol_set::vpn_list, pol_entry_set_vpn_list_add,
     pol_entry_set_vpn_list_delete},
    {POL_SET_F_TLOC_LIST, &t_pol_set::tloc_list, pol_entry_set_tloc_list_add,
     pol_entry_set_tloc_list_delete},
};

}  // namespace pol
