// SPDX-License-Identifier: Apache-2.0
//
// pol_list_internal.h - the nodes of the named lists, and what data policies register on them.
#pragma once

#include <cstring>

#include "base/range_set.h"
#include "base/record_pool.h"
#include "lists/named_list.h"
#include "lists/pol_pfx_index.h"

struct t_site_entry {
  pol::RangeNode range;
};

struct t_site_list {
  pol::NamedHead head;
  pol::RecordPool<t_site_entry, pol::MEM_SITE_ENTRY> records;
  pol::RangeSet entries;
  pol::UserQueue pol_users;
  t_pol_list_user* list_user;
};

struct t_pol_vpn_entry {
  pol::RangeNode range;
};

// What a data policy embeds for each VPN list that it applies to.
struct t_pol_fwd_vpn_entry {
  char name[POL_NAME_SIZE];  // first: the tree's key
  avl_node link;
  t_vpn_list* vpn_list;
  t_pol_block* block;
  pol::AvlTree<t_pol_entry> entries;  // by sequence
  pol::TailLink<t_pol_fwd_vpn_entry> vpn_list_link;
};

struct t_vpn_list {
  using FwdUserQueue = pol::TailQueue<t_pol_fwd_vpn_entry, &t_pol_fwd_vpn_entry::vpn_list_link>;

  pol::NamedHead head;
  uint8_t changed;  // the agent's text of the list must be fetched again
  pol::RecordPool<t_pol_vpn_entry, pol::MEM_VPN_ENTRY> records;
  pol::RangeSet entries;
  pol::UserQueue match_users;
  pol::UserQueue action_users;
  FwdUserQueue fwd_pol_users;
};

// A TLOC of a list, and one that a data policy's action resolved to.
struct t_tloc_entry {
  pol::TailLink<t_tloc_entry> link;
  avl_node tree_link;  // in lists only
  t_tloc_id tloc;
  uint32_t label;
  uint32_t preference;
};

namespace pol {

using TlocQueue = TailQueue<t_tloc_entry, &t_tloc_entry::link>;

// Adds a range at the place found for it. False when memory runs out; then nothing changed.
template <class List>
bool range_add(List* list, uint32_t low, uint32_t high, const RangePlace& place) {
  auto* entry = list->records.make();
  if (entry == nullptr) return false;
  entry->range.low = low;
  entry->range.high = high;
  list->entries.add(&entry->range, place);
  return true;
}

// A TLOC as entries have it: padding and the part of the address that its family has no use for are
// zero.
inline t_tloc_id tloc_stored(const t_tloc_id& tloc) {
  t_tloc_id stored = {};
  stored.family = tloc.family;
  if (tloc.family == KEL_AF_INET) {
    stored.addr.v4 = tloc.addr.v4;
  } else {
    memcpy(stored.addr.v6, tloc.addr.v6, sizeof stored.addr.v6);
  }
  stored.color = tloc.color;
  stored.encap = tloc.encap;
  return stored;
}

}  // namespace pol

struct t_tloc_list {
  pol::NamedHead head;
  uint8_t changed;  // the agent's text of the list must be fetched again
  pol::TlocQueue entries;
  pol::AvlTree<t_tloc_entry> by_tloc;
  pol::UserQueue users;
  pol::UserQueue action_users;
  uint8_t label_pending;  // labels of data policies that use the list must be computed again
};

struct t_color_entry {
  pol::TailLink<t_color_entry> link;
  avl_node tree_link;
  uint16_t color;
};

struct t_color_list {
  pol::NamedHead head;
  pol::TailQueue<t_color_entry, &t_color_entry::link> entries;
  pol::AvlTree<t_color_entry> by_color;
  pol::UserQueue users;
};

struct t_pfx_list {
  pol::NamedHead head;
  pol::RecordPool<t_pfx_entry, pol::MEM_PFX_ENTRY, t_pfx_entry_wide> records;
  pol::TailQueue<t_pfx_entry, &t_pfx_entry::link> entries;
  pol::PfxIndex index;
  pol::UserQueue users;
};

// Objects that the library knows by name only: users and, where the agent has text of them, whether
// that must be fetched again. One queue a role, in the order in which users are told and shown.

struct t_app_list {
  pol::NamedHead head;
  uint8_t changed;
  pol::UserQueue users[3];  // application, DNS application, SaaS application
};

struct t_fwd_pfx_list {
  pol::NamedHead head;
  uint8_t changed;
  pol::UserQueue users[2];  // source, destination
};

struct t_fwd_sla_class {
  pol::NamedHead head;
  uint8_t changed;
  pol::UserQueue users[1];
};

struct t_fwd_policer {
  pol::NamedHead head;
  uint8_t changed;
  pol::UserQueue users[1];
};

struct t_fwd_app_id {
  pol::NamedHead head;
  pol::UserQueue users[1];
};

// A sequence of a forwarding policy as the objects that it names know it: one registration a role.
// It outlives its sequence while DNS or SaaS application lists still know it (pol_fwd_block.cpp).
struct t_pol_fwd_user {
  t_pol_clause_user app_list;
  t_pol_clause_user dns_app_list;
  t_pol_clause_user saas_app_list;
  t_pol_clause_user src_pfx;
  t_pol_clause_user dst_pfx;
  t_pol_clause_user src_pfx6;
  t_pol_clause_user dst_pfx6;
  t_pol_clause_user app_id;
  t_pol_clause_user tloc_list;
  t_pol_clause_user sla_class;
  t_pol_clause_user policer;
  t_pol_entry* entry;  // null once it outlived it
  pol::TailLink<t_pol_fwd_user> leftover_link;
};
