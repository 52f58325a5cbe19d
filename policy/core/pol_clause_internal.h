// SPDX-License-Identifier: Apache-2.0
//
// pol_clause_internal.h - the clauses of a sequence as a whole.
#pragma once

#include <cstring>
#include <type_traits>

#include "base/pol_name.h"
#include "core/pol_block_internal.h"

namespace pol {

// Empties a sequence that no list knows (any more): no clauses, reject, everything bound to
// `block`.
void entry_reset(t_pol_entry* entry, t_pol_block* block);

// Whether two sequences have the same clauses with the same values, lists by name.
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

template <class List>
List* list_argument(uint32_t (*)(t_pol_ctx*, List*, t_pol_clause_user*));

// The list that a remove operation takes, of the user's.
template <auto kRemove>
auto* list_for(const t_pol_clause_user& user) {
  using List = std::remove_pointer_t<decltype(list_argument(kRemove))>;
  return list_of<List>(user);
}

// Registers the clause on the list of that name. False when the list cannot be made: on purpose the
// clause stays configured then, and goes on referring to the list it leaves.
template <auto kAdd, auto kRemove>
[[nodiscard]] bool clause_name_list(const ClauseSite& at, uint32_t bit, t_pol_clause_user* user,
                                    const char* name) {
  char key[POL_LIST_NAME_SIZE];
  copy_name(key, name);
  if ((*at.flags & bit) != 0 && user->list != nullptr &&
      named_compare(key, user->list->name) == 0) {
    return true;
  }
  *at.flags |= bit;
  if (user->list != nullptr) {
    user->keep_reference = true;
    kRemove(at.ctx, list_for<kRemove>(*user), user);
    user->keep_reference = false;
  }
  if (kAdd(at.ctx, name, user) == nullptr) return false;
  clause_changed(at);
  return true;
}

// False when the clause was not there.
template <auto kRemove>
bool clause_drop_list(const ClauseSite& at, uint32_t bit, t_pol_clause_user* user) {
  if ((*at.flags & bit) == 0) return false;
  *at.flags &= ~bit;
  if (user->list != nullptr) kRemove(at.ctx, list_for<kRemove>(*user), user);
  clause_changed(at);
  return true;
}

}  // namespace pol
