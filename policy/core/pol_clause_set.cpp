// SPDX-License-Identifier: Apache-2.0
// Set clauses, and the clauses of a sequence compared and copied as a whole.
#include "core/pol_clause_internal.h"

#include <cstring>

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "policy/pol_clause.h"
#include "policy/pol_color_list.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"

namespace {

using pol::Caller;

pol::ClauseSite set_site(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed,
                         Caller from = Caller::here()) {
  if (pol::is_forwarding(*entry)) pol::crash("a set clause of a forwarding sequence", from);
  return {ctx, entry, &entry->set_flags, changed};
}

template <class T>
t_pol_set* store(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_set::*member, T value,
                 uint8_t* changed, Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  pol::clause_store(set_site(ctx, entry, changed, from), bit, &(entry->set.*member), value);
  return &entry->set;
}

template <class T>
bool clear(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_set::*member, uint8_t* changed,
           Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr) return false;
  return pol::clause_clear(set_site(ctx, entry, changed, from), bit, &(entry->set.*member));
}

// What the policy says of itself (pol_handle_sets_tloc and siblings).
void summary_add(t_pol_entry* entry, pol_sets sets) { entry->block->sets |= sets; }

void summary_remove(t_pol_entry* entry, pol_sets sets) {
  entry->block->sets &= static_cast<uint8_t>(~sets);
}

// A service need not have a TLOC; then its family is 0.
bool service_tloc_equal(const t_tloc_id& a, const t_tloc_id& b) {
  return a.family == 0 ? pol::tloc_same(a, b) : pol::tloc_equal(a, b);
}

// The one list of a set clause's two names, "" when it has none.
const char* list_name(const t_pol_clause_user& user) {
  return user.list != nullptr ? user.list->name : "";
}

bool same_list(const t_pol_clause_user& a, const t_pol_clause_user& b) {
  return strncmp(list_name(a), list_name(b), POL_LIST_NAME_SIZE) == 0;
}

}  // namespace

t_pol_set* pol_entry_set_add(t_pol_ctx* ctx, t_pol_entry* entry) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  entry->set.block = entry->block;
  return &entry->set;
}

void pol_entry_set_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  for (const auto& row : pol::kSetLists) row.remove(ctx, entry, changed);
  if (entry->set_flags == 0) return;
  const pol::ClauseSite at = set_site(ctx, entry, changed);
  pol::set_reset(entry);
  pol::clause_changed(at);
}

t_pol_set* pol_entry_set_tag_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t tag,
                                 uint8_t* changed) {
  return store(ctx, entry, POL_SET_F_TAG, &t_pol_set::tag, tag, changed);
}

void pol_entry_set_tag_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_SET_F_TAG, &t_pol_set::tag, changed);
}

t_pol_set* pol_entry_set_preference_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t preference,
                                        uint8_t* changed) {
  return store(ctx, entry, POL_SET_F_PREF, &t_pol_set::preference, preference, changed);
}

void pol_entry_set_preference_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_SET_F_PREF, &t_pol_set::preference, changed);
}

t_pol_set* pol_entry_set_vpn_id_add(t_pol_ctx* ctx, t_pol_entry* entry, uint64_t vpn,
                                    uint8_t* changed) {
  return store(ctx, entry, POL_SET_F_VPN_ID, &t_pol_set::vpn_id, vpn, changed);
}

void pol_entry_set_vpn_id_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_SET_F_VPN_ID, &t_pol_set::vpn_id, changed);
}

t_pol_set* pol_entry_set_tloc_add(t_pol_ctx* ctx, t_pol_entry* entry, const t_tloc_id* tloc,
                                  uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || tloc == nullptr) return nullptr;
  summary_add(entry, POL_SETS_TLOC);
  pol::clause_store(set_site(ctx, entry, changed), POL_SET_F_TLOC, &entry->set.tloc, *tloc,
                    pol::tloc_equal);
  return &entry->set;
}

void pol_entry_set_tloc_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (clear(ctx, entry, POL_SET_F_TLOC, &t_pol_set::tloc, changed)) {
    summary_remove(entry, POL_SETS_TLOC);
  }
}

t_pol_set* pol_entry_set_service_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t service,
                                     const t_tloc_id* tloc, uint64_t vpn, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || tloc == nullptr) return nullptr;
  summary_add(entry, POL_SETS_SERVICE);
  t_pol_set& set = entry->set;
  if ((entry->set_flags & POL_SET_F_SERVICE) != 0 && set.service == service &&
      set.service_vpn == vpn && service_tloc_equal(set.service_tloc, *tloc)) {
    return &set;
  }
  entry->set_flags |= POL_SET_F_SERVICE;
  set.service = service;
  set.service_tloc = *tloc;
  set.service_vpn = vpn;
  pol::clause_changed(set_site(ctx, entry, changed));
  return &set;
}

void pol_entry_set_service_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (!clear(ctx, entry, POL_SET_F_SERVICE, &t_pol_set::service, changed)) return;
  entry->set.service_tloc = {};
  entry->set.service_vpn = 0;
  summary_remove(entry, POL_SETS_SERVICE);
}

t_pol_set* pol_entry_set_vpn_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                      uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  bool named = pol::clause_name_list<pol_vpn_list_action_user_add>(
      set_site(ctx, entry, changed), POL_SET_F_VPN_LIST, &entry->set.vpn_list, name);
  return named ? &entry->set : nullptr;
}

void pol_entry_set_vpn_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  pol::clause_drop_list(set_site(ctx, entry, changed), POL_SET_F_VPN_LIST, &entry->set.vpn_list);
}

t_pol_set* pol_entry_set_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                       uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  summary_add(entry, POL_SETS_TLOC_LIST);
  bool named = pol::clause_name_list<pol_tloc_list_action_user_add>(
      set_site(ctx, entry, changed), POL_SET_F_TLOC_LIST, &entry->set.tloc_list, name);
  return named ? &entry->set : nullptr;
}

void pol_entry_set_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  if (pol::clause_drop_list(set_site(ctx, entry, changed), POL_SET_F_TLOC_LIST,
                            &entry->set.tloc_list)) {
    summary_remove(entry, POL_SETS_TLOC_LIST);
  }
}

namespace pol {

void set_reset(t_pol_entry* entry) {
  entry->set = {};
  entry->set.block = entry->block;
  for (const ListClause<t_pol_set>& row : kSetLists) {
    (entry->set.*row.user).block = entry->block;
    (entry->set.*row.user).entry = entry;
  }
  entry->set_flags = 0;
}

void entry_reset(t_pol_entry* entry, t_pol_block* block) {
  entry->block = block;
  entry->action = POL_REJECT;
  match_reset(entry);
  set_reset(entry);
}

namespace {

template <class Area, size_t N>
bool same_lists(uint32_t flags, const Area& a, const Area& b, const ListClause<Area> (&rows)[N]) {
  for (const ListClause<Area>& row : rows) {
    if ((flags & row.bit) != 0 && !same_list(a.*row.user, b.*row.user)) return false;
  }
  return true;
}

// REQUIRES: the same match clauses are configured.
bool match_equal(uint32_t flags, const t_pol_match& a, const t_pol_match& b) {
  const auto same = [&](uint32_t bit, auto... member) {
    return (flags & bit) == 0 || ((a.*member == b.*member) && ...);
  };
  const auto has = [flags](uint32_t bit) { return (flags & bit) != 0; };
  return (flags == 0 || a.type == b.type) && same(POL_MATCH_F_TAG, &t_pol_match::tag) &&
         same(POL_MATCH_F_PREF, &t_pol_match::preference) &&
         same(POL_MATCH_F_DOMAIN, &t_pol_match::domain) &&
         same(POL_MATCH_F_GROUP, &t_pol_match::group) &&
         same(POL_MATCH_F_SITE, &t_pol_match::site) &&
         same(POL_MATCH_F_VPN_ID, &t_pol_match::vpn_id) &&
         same(POL_MATCH_F_CARRIER, &t_pol_match::carrier) &&
         same(POL_MATCH_F_SRC_PORT, &t_pol_match::src_port) &&
         same(POL_MATCH_F_DST_PORT, &t_pol_match::dst_port) &&
         same(POL_MATCH_F_COLOR, &t_pol_match::color) &&
         same(POL_MATCH_F_ORIGIN, &t_pol_match::origin_protocol, &t_pol_match::origin_subtype) &&
         // A protocol stands under the DSCP's flag.
         same(POL_MATCH_F_DSCP, &t_pol_match::dscp, &t_pol_match::proto) &&
         (!has(POL_MATCH_F_TLOC) || tloc_same(a.tloc, b.tloc)) &&
         (!has(POL_MATCH_F_ORIGINATOR) || address_same(a.originator, b.originator)) &&
         same_lists(flags, a, b, kMatchLists);
}

// REQUIRES: the same set clauses are configured.
bool set_equal(uint32_t flags, const t_pol_set& a, const t_pol_set& b) {
  constexpr uint32_t kTlocs = POL_SET_F_TLOC | POL_SET_F_TLOC_LIST | POL_SET_F_SERVICE;
  const auto same = [&](uint32_t bits, auto... member) {
    return (flags & bits) == 0 || ((a.*member == b.*member) && ...);
  };
  const auto has = [flags](uint32_t bit) { return (flags & bit) != 0; };
  return same(POL_SET_F_TAG, &t_pol_set::tag) && same(POL_SET_F_PREF, &t_pol_set::preference) &&
         same(POL_SET_F_VPN_ID, &t_pol_set::vpn_id) && same(kTlocs, &t_pol_set::ultimate_tloc) &&
         same(POL_SET_F_SERVICE, &t_pol_set::service, &t_pol_set::service_vpn) &&
         (!has(POL_SET_F_TLOC) || tloc_same(a.tloc, b.tloc)) &&
         (!has(POL_SET_F_SERVICE) || tloc_same(a.service_tloc, b.service_tloc)) &&
         same_lists(flags, a, b, kSetLists);
}

template <size_t N, class Area>
constexpr uint32_t bits_of(const ListClause<Area> (&rows)[N]) {
  uint32_t bits = 0;
  for (const ListClause<Area>& row : rows) bits |= row.bit;
  return bits;
}

// Copies everything but the list clauses, which keep their own user records.
template <class Area, size_t N>
void copy_values(Area* to, const Area& from, const ListClause<Area> (&rows)[N]) {
  Area copy = from;
  copy.block = to->block;
  for (const ListClause<Area>& row : rows) copy.*row.user = to->*row.user;
  *to = copy;
}

template <class Area, size_t N>
bool copy_lists(t_pol_ctx* ctx, t_pol_entry* to, const Area& from,
                const ListClause<Area> (&rows)[N]) {
  bool done = true;
  for (const ListClause<Area>& row : rows) {
    const NamedHead* list = (from.*row.user).list;
    if (list != nullptr) done &= row.add(ctx, to, list->name, nullptr) != nullptr;
  }
  return done;
}

}  // namespace

bool clauses_equal(const t_pol_entry& a, const t_pol_entry& b) {
  return a.match_flags == b.match_flags && a.set_flags == b.set_flags &&
         match_equal(a.match_flags, a.match, b.match) && set_equal(a.set_flags, a.set, b.set);
}

bool clauses_copy(t_pol_ctx* ctx, t_pol_entry* to, const t_pol_entry& from) {
  copy_values(&to->match, from.match, kMatchLists);
  copy_values(&to->set, from.set, kSetLists);
  to->match_flags = from.match_flags & ~bits_of(kMatchLists);
  to->set_flags = from.set_flags & ~bits_of(kSetLists);
  if ((to->set_flags & POL_SET_F_TLOC) != 0) summary_add(to, POL_SETS_TLOC);
  if ((to->set_flags & POL_SET_F_SERVICE) != 0) summary_add(to, POL_SETS_SERVICE);
  const bool matches = copy_lists(ctx, to, from.match, kMatchLists);
  return copy_lists(ctx, to, from.set, kSetLists) && matches;
}

}  // namespace pol
