// SPDX-License-Identifier: Apache-2.0
// Match clauses.
#include "core/pol_clause_internal.h"

#include <cassert>
#include <cstring>
#include <iterator>

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_policy_index.h"
#include "policy/pol_clause.h"
#include "policy/pol_color_list.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"

namespace {

using pol::Caller;

pol::ClauseSite match_site(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed,
                           Caller from = Caller::here()) {
  if (pol::is_forwarding(*entry)) pol::crash("a match clause of a forwarding sequence", from);
  // Before the clause is touched, because one that fails half way is touched all the same.
  pol::policy_index_stale(ctx, entry->block, entry);
  return {ctx, entry, &entry->match_flags, changed};
}

template <class T>
t_pol_match* store(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_match::*member,
                   T value, uint8_t* changed, Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  pol::clause_store(match_site(ctx, entry, changed, from), bit, &(entry->match.*member), value);
  return &entry->match;
}

template <class T>
void clear(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit, T t_pol_match::*member,
           uint8_t* changed, Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr) return;
  pol::clause_clear(match_site(ctx, entry, changed, from), bit, &(entry->match.*member));
}

template <auto kAdd>
t_pol_match* name_list(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit,
                       t_pol_clause_user t_pol_match::*user, const char* name, uint8_t* changed,
                       Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  bool named = pol::clause_name_list<kAdd>(match_site(ctx, entry, changed, from), bit,
                                           &(entry->match.*user), name);
  return named ? &entry->match : nullptr;
}

void drop_list(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t bit,
               t_pol_clause_user t_pol_match::*user, uint8_t* changed,
               Caller from = Caller::here()) {
  if (ctx == nullptr || entry == nullptr) return;
  pol::clause_drop_list(match_site(ctx, entry, changed, from), bit, &(entry->match.*user));
}

struct Origin {
  uint8_t protocol;
  uint8_t subtype;
};

// By code; protocol 0 marks the codes without a meaning.
constexpr Origin kOrigins[] = {
    {2, 0}, {1, 0}, {4, 2}, {4, 1}, {4, 3}, {4, 4}, {3, 1}, {3, 2},
    {0, 0}, {0, 0}, {0, 0}, {5, 0}, {8, 0}, {9, 1}, {9, 2},
};

}  // namespace

namespace pol {

void clause_changed(const ClauseSite& at) {
  mark_changed(at.changed);
  pol_block_users_add_to_chg_list(at.ctx, at.entry->block);
}

bool clause_drop_list(const ClauseSite& at, uint32_t bit, t_pol_clause_user* user) {
  if ((*at.flags & bit) == 0) return false;
  *at.flags &= ~bit;
  if (user->list != nullptr) user_leave(at.ctx, user, Leaving::kForgets);
  clause_changed(at);
  return true;
}

void match_reset(t_pol_entry* entry) {
  entry->match = {};
  entry->match.block = entry->block;
  for (const ListClause<t_pol_match>& row : kMatchLists) {
    (entry->match.*row.user).block = entry->block;
    (entry->match.*row.user).entry = entry;
  }
  entry->match_flags = 0;
}

namespace {

bool address_known(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

size_t address_size(uint32_t family) { return family == KEL_AF_INET ? 4 : 16; }

}  // namespace

bool address_same(const t_ipaddr& a, const t_ipaddr& b) {
  return a.family == b.family && memcmp(&a.addr, &b.addr, address_size(a.family)) == 0;
}

bool tloc_same(const t_tloc_id& a, const t_tloc_id& b) {
  return a.family == b.family && memcmp(&a.addr, &b.addr, address_size(a.family)) == 0 &&
         a.color == b.color && a.encap == b.encap;
}

bool address_equal(const t_ipaddr& a, const t_ipaddr& b) {
  assert(a.family != b.family || address_known(a.family));
  return address_same(a, b);
}

bool tloc_equal(const t_tloc_id& a, const t_tloc_id& b) {
  assert(a.family != b.family || address_known(a.family));
  return tloc_same(a, b);
}

}  // namespace pol

t_pol_match* pol_entry_match_add(t_pol_ctx* ctx, t_pol_block* block, t_pol_entry* entry,
                                 uint32_t match_type, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || block == nullptr || block != entry->block)
    return nullptr;
  if (match_type < POL_MATCH_ROUTE || match_type > POL_MATCH_PACKET) return nullptr;
  const pol::ClauseSite at = match_site(ctx, entry, changed);
  if (entry->match.type == match_type) return &entry->match;
  if (entry->match.type != 0) pol_entry_match_delete(ctx, entry, changed);
  entry->match.type = match_type;
  pol::clause_changed(at);
  return &entry->match;
}

void pol_entry_match_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || entry->match_flags == 0) return;
  const pol::ClauseSite at = match_site(ctx, entry, changed);
  for (const auto& row : pol::kMatchLists) row.remove(ctx, entry, changed);
  const uint32_t type = entry->match.type;
  pol::match_reset(entry);
  entry->match.type = type;
  pol::clause_changed(at);
}

t_pol_match* pol_entry_match_site_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t site,
                                      uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_SITE, &t_pol_match::site, site, changed);
}

void pol_entry_match_site_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_SITE, &t_pol_match::site, changed);
}

t_pol_match* pol_entry_match_tag_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t tag,
                                     uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_TAG, &t_pol_match::tag, tag, changed);
}

void pol_entry_match_tag_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_TAG, &t_pol_match::tag, changed);
}

t_pol_match* pol_entry_match_preference_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t preference,
                                            uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_PREF, &t_pol_match::preference, preference, changed);
}

void pol_entry_match_preference_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_PREF, &t_pol_match::preference, changed);
}

t_pol_match* pol_entry_match_domain_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t domain,
                                        uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_DOMAIN, &t_pol_match::domain, domain, changed);
}

void pol_entry_match_domain_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_DOMAIN, &t_pol_match::domain, changed);
}

t_pol_match* pol_entry_match_vpn_id_add(t_pol_ctx* ctx, t_pol_entry* entry, uint64_t vpn,
                                        uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_VPN_ID, &t_pol_match::vpn_id, vpn, changed);
}

void pol_entry_match_vpn_id_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_VPN_ID, &t_pol_match::vpn_id, changed);
}

t_pol_match* pol_entry_match_carrier_add(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t carrier,
                                         uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_CARRIER, &t_pol_match::carrier, carrier, changed);
}

void pol_entry_match_carrier_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_CARRIER, &t_pol_match::carrier, changed);
}

t_pol_match* pol_entry_match_group_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t group,
                                       uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_GROUP, &t_pol_match::group, group, changed);
}

void pol_entry_match_group_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_GROUP, &t_pol_match::group, changed);
}

t_pol_match* pol_entry_match_src_port_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t port,
                                          uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_SRC_PORT, &t_pol_match::src_port, port, changed);
}

void pol_entry_match_src_port_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_SRC_PORT, &t_pol_match::src_port, changed);
}

t_pol_match* pol_entry_match_dst_port_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t port,
                                          uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_DST_PORT, &t_pol_match::dst_port, port, changed);
}

void pol_entry_match_dst_port_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_DST_PORT, &t_pol_match::dst_port, changed);
}

t_pol_match* pol_entry_match_dscp_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t dscp,
                                      uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_DSCP, &t_pol_match::dscp, dscp, changed);
}

void pol_entry_match_dscp_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_DSCP, &t_pol_match::dscp, changed);
}

t_pol_match* pol_entry_match_color_add(t_pol_ctx* ctx, t_pol_entry* entry, uint16_t color,
                                       uint8_t* changed) {
  return store(ctx, entry, POL_MATCH_F_COLOR, &t_pol_match::color, color, changed);
}

void pol_entry_match_color_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_COLOR, &t_pol_match::color, changed);
}

// On purpose: the add marks the DSCP clause as configured, so a protocol shows as "DSCP" and every
// add of a protocol counts as a change.
t_pol_match* pol_entry_match_proto_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t proto,
                                       uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  if ((entry->match_flags & POL_MATCH_F_PROTO) != 0 && entry->match.proto == proto)
    return &entry->match;
  entry->match_flags |= POL_MATCH_F_DSCP;
  entry->match.proto = proto;
  pol::clause_changed(match_site(ctx, entry, changed));
  return &entry->match;
}

void pol_entry_match_proto_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_PROTO, &t_pol_match::proto, changed);
}

t_pol_match* pol_entry_match_tloc_add(t_pol_ctx* ctx, t_pol_entry* entry, const t_tloc_id* tloc,
                                      uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || tloc == nullptr) return nullptr;
  pol::clause_store(match_site(ctx, entry, changed), POL_MATCH_F_TLOC, &entry->match.tloc, *tloc,
                    pol::tloc_equal);
  return &entry->match;
}

void pol_entry_match_tloc_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_TLOC, &t_pol_match::tloc, changed);
}

t_pol_match* pol_entry_match_originator_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                            const t_ipaddr* originator, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || originator == nullptr) return nullptr;
  pol::clause_store(match_site(ctx, entry, changed), POL_MATCH_F_ORIGINATOR,
                    &entry->match.originator, *originator, pol::address_equal);
  return &entry->match;
}

void pol_entry_match_originator_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  clear(ctx, entry, POL_MATCH_F_ORIGINATOR, &t_pol_match::originator, changed);
}

t_pol_match* pol_entry_match_origin_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t code,
                                        uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  if (code >= std::size(kOrigins) || kOrigins[code].protocol == 0) return &entry->match;
  t_pol_match& match = entry->match;
  Origin origin = kOrigins[code];
  if ((entry->match_flags & POL_MATCH_F_ORIGIN) != 0 && match.origin_protocol == origin.protocol &&
      match.origin_subtype == origin.subtype) {
    return &match;
  }
  entry->match_flags |= POL_MATCH_F_ORIGIN;
  match.origin_protocol = origin.protocol;
  match.origin_subtype = origin.subtype;
  pol::clause_changed(match_site(ctx, entry, changed));
  return &match;
}

void pol_entry_match_origin_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || (entry->match_flags & POL_MATCH_F_ORIGIN) == 0) return;
  entry->match.origin_subtype = 0;
  clear(ctx, entry, POL_MATCH_F_ORIGIN, &t_pol_match::origin_protocol, changed);
}

t_pol_match* pol_entry_match_site_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                           uint8_t* changed) {
  return name_list<pol_site_list_pol_user_add>(ctx, entry, POL_MATCH_F_SITE_LIST,
                                               &t_pol_match::site_list, name, changed);
}

void pol_entry_match_site_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  drop_list(ctx, entry, POL_MATCH_F_SITE_LIST, &t_pol_match::site_list, changed);
}

t_pol_match* pol_entry_match_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                           uint8_t* changed) {
  return name_list<pol_tloc_list_user_add>(ctx, entry, POL_MATCH_F_TLOC_LIST,
                                           &t_pol_match::tloc_list, name, changed);
}

void pol_entry_match_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  drop_list(ctx, entry, POL_MATCH_F_TLOC_LIST, &t_pol_match::tloc_list, changed);
}

t_pol_match* pol_entry_match_pfx_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                          uint8_t* changed) {
  return name_list<pol_pfx_list_user_add>(ctx, entry, POL_MATCH_F_PFX_LIST, &t_pol_match::pfx_list,
                                          name, changed);
}

void pol_entry_match_pfx_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  drop_list(ctx, entry, POL_MATCH_F_PFX_LIST, &t_pol_match::pfx_list, changed);
}

t_pol_match* pol_entry_match_vpn_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                          uint8_t* changed) {
  return name_list<pol_vpn_list_match_user_add>(ctx, entry, POL_MATCH_F_VPN_LIST,
                                                &t_pol_match::vpn_list, name, changed);
}

void pol_entry_match_vpn_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  drop_list(ctx, entry, POL_MATCH_F_VPN_LIST, &t_pol_match::vpn_list, changed);
}

t_pol_match* pol_entry_match_color_list_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                            uint8_t* changed) {
  return name_list<pol_color_list_user_add>(ctx, entry, POL_MATCH_F_COLOR_LIST,
                                            &t_pol_match::color_list, name, changed);
}

void pol_entry_match_color_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  drop_list(ctx, entry, POL_MATCH_F_COLOR_LIST, &t_pol_match::color_list, changed);
}
