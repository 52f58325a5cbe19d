// SPDX-License-Identifier: Apache-2.0
// Set clauses, and the clauses of a sequence compared and copied as a whole.
#include <cstring>

#include "base/pol_crash.h"
#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"
#include "policy/pol_clause.h"
#include "policy/pol_color_list.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"

namespace {

pol::ClauseSite set_site(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (pol::is_forwarding(*entry)) pol::crash();
  return {ctx, entry, &entry->set_flags, changed};
}

template <class T>
t_pol_set* store(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_set::*member, T value,
                 uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  pol::clause_store(set_site(ctx, entry, changed), bit, &(entry->set.*member), value);
  return &entry->set;
}

template <class T>
bool clear(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_set::*member,
           uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return false;
  return pol::clause_clear(set_site(ctx, entry, changed), bit, &(entry->set.*member));
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
  pol_entry_set_vpn_list_delete(ctx, entry, changed);
  pol_entry_set_tloc_list_delete(ctx, entry, changed);
  if (entry->set_flags == 0) return;
  t_pol_set empty = {};
  empty.block = entry->set.block;
  empty.vpn_list.block = empty.tloc_list.block = entry->block;
  empty.vpn_list.entry = empty.tloc_list.entry = entry;
  entry->set = empty;
  entry->set_flags = 0;
  pol::clause_changed(set_site(ctx, entry, changed));
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
  bool named = pol::clause_name_list<pol_vpn_list_action_user_add, pol_vpn_list_action_user_remove>(
      set_site(ctx, entry, changed), POL_SET_F_VPN_LIST, &entry->set.vpn_list, name);
  return named ? &entry->set : nullptr;
}

void pol_entry_set_vpn_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  pol::clause_drop_list<pol_vpn_list_action_user_remove>(set_site(ctx, entry, changed),
                                                         POL_SET_F_VPN_LIST, &entry->set.vpn_list);
}

t_pol_set* pol_entry_set_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                       uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  summary_add(entry, POL_SETS_TLOC_LIST);
  bool named =
      pol::clause_name_list<pol_tloc_list_action_user_add, pol_tloc_list_action_user_remove>(
          set_site(ctx, entry, changed), POL_SET_F_TLOC_LIST, &entry->set.tloc_list, name);
  return named ? &entry->set : nullptr;
}

void pol_entry_set_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  if (pol::clause_drop_list<pol_tloc_list_action_user_remove>(
          set_site(ctx, entry, changed), POL_SET_F_TLOC_LIST, &entry->set.tloc_list)) {
    summary_remove(entry, POL_SETS_TLOC_LIST);
  }
}

namespace pol {
namespace {

// Values of clauses that are not configured are zero, so all may be compared.
bool match_equal(const t_pol_match& a, const t_pol_match& b) {
  return a.type == b.type && a.tag == b.tag && a.preference == b.preference &&
         a.domain == b.domain && a.group == b.group && a.vpn_id == b.vpn_id && a.site == b.site &&
         a.dscp == b.dscp && a.proto == b.proto && a.src_port == b.src_port &&
         a.dst_port == b.dst_port && a.color == b.color && a.origin_protocol == b.origin_protocol &&
         a.origin_subtype == b.origin_subtype && a.carrier == b.carrier &&
         tloc_same(a.tloc, b.tloc) && address_same(a.originator, b.originator) &&
         same_list(a.site_list, b.site_list) && same_list(a.tloc_list, b.tloc_list) &&
         same_list(a.pfx_list, b.pfx_list) && same_list(a.vpn_list, b.vpn_list) &&
         same_list(a.color_list, b.color_list);
}

bool set_equal(const t_pol_set& a, const t_pol_set& b) {
  return a.tag == b.tag && a.preference == b.preference && a.vpn_id == b.vpn_id &&
         tloc_same(a.tloc, b.tloc) && a.service == b.service &&
         a.ultimate_tloc == b.ultimate_tloc && tloc_same(a.service_tloc, b.service_tloc) &&
         a.service_vpn == b.service_vpn && same_list(a.vpn_list, b.vpn_list) &&
         same_list(a.tloc_list, b.tloc_list);
}

// Copies everything but the list clauses, which keep their own user records.
template <class Area, size_t N>
void copy_values(Area* to, const Area& from, t_pol_clause_user Area::*const (&users)[N]) {
  Area copy = from;
  copy.block = to->block;
  for (t_pol_clause_user Area::*user : users) copy.*user = to->*user;
  *to = copy;
}

constexpr t_pol_clause_user t_pol_match::*kMatchUsers[] = {
    &t_pol_match::site_list, &t_pol_match::tloc_list, &t_pol_match::pfx_list,
    &t_pol_match::vpn_list, &t_pol_match::color_list};
constexpr t_pol_clause_user t_pol_set::*kSetUsers[] = {&t_pol_set::vpn_list, &t_pol_set::tloc_list};

}  // namespace

bool clauses_equal(const t_pol_entry& a, const t_pol_entry& b) {
  return a.match_flags == b.match_flags && a.set_flags == b.set_flags &&
         match_equal(a.match, b.match) && set_equal(a.set, b.set);
}

bool clauses_copy(t_pol_ctx* ctx, t_pol_entry* to, const t_pol_entry& from) {
  copy_values(&to->match, from.match, kMatchUsers);
  copy_values(&to->set, from.set, kSetUsers);
  constexpr uint32_t kMatchLists = POL_MATCH_F_SITE_LIST | POL_MATCH_F_TLOC_LIST |
                                   POL_MATCH_F_PFX_LIST | POL_MATCH_F_VPN_LIST |
                                   POL_MATCH_F_COLOR_LIST;
  constexpr uint32_t kSetLists = POL_SET_F_VPN_LIST | POL_SET_F_TLOC_LIST;
  to->match_flags = from.match_flags & ~kMatchLists;
  to->set_flags = from.set_flags & ~kSetLists;
  if ((to->set_flags & POL_SET_F_TLOC) != 0) summary_add(to, POL_SETS_TLOC);
  if ((to->set_flags & POL_SET_F_SERVICE) != 0) summary_add(to, POL_SETS_SERVICE);

  uint8_t changed = 0;
  bool done = true;
  auto name = [](const t_pol_clause_user& user) {
    return user.list != nullptr ? user.list->name : nullptr;
  };
  const t_pol_match& match = from.match;
  if (const char* list = name(match.site_list)) {
    done &= pol_entry_match_site_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(match.tloc_list)) {
    done &= pol_entry_match_tloc_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(match.pfx_list)) {
    done &= pol_entry_match_pfx_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(match.vpn_list)) {
    done &= pol_entry_match_vpn_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(match.color_list)) {
    done &= pol_entry_match_color_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(from.set.vpn_list)) {
    done &= pol_entry_set_vpn_list_add(ctx, to, list, &changed) != nullptr;
  }
  if (const char* list = name(from.set.tloc_list)) {
    done &= pol_entry_set_tloc_list_add(ctx, to, list, &changed) != nullptr;
  }
  return done;
}

}  // namespace pol
