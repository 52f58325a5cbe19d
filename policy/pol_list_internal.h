// SPDX-License-Identifier: Apache-2.0
//
// pol_list_internal.h - the nodes of the named lists with elements.
#pragma once

#include "base/named_list.h"
#include "base/range_set.h"
#include "pol_pfx_index.h"

struct t_site_entry {
  pol::RangeNode range;
};

struct t_site_list {
  pol::NamedHead head;
  pol::RangeSet entries;
  pol::UserQueue pol_users;
  t_pol_list_user* list_user;
};

struct t_pol_vpn_entry {
  pol::RangeNode range;
};

// What a data policy embeds for each VPN list that it applies to.
struct t_pol_fwd_vpn_entry {
  char name[POL_NAME_SIZE];
  avl_node link;
  t_vpn_list* vpn_list;
  t_pol_block* block;
  pol::TailLink<t_pol_fwd_vpn_entry> vpn_list_link;
};

struct t_vpn_list {
  using FwdUserQueue = pol::TailQueue<t_pol_fwd_vpn_entry, &t_pol_fwd_vpn_entry::vpn_list_link>;

  pol::NamedHead head;
  uint8_t changed;  // the agent's text of the list must be fetched again
  pol::RangeSet entries;
  pol::UserQueue match_users;
  pol::UserQueue action_users;
  FwdUserQueue fwd_pol_users;
};

struct t_tloc_entry {
  pol::TailLink<t_tloc_entry> link;
  avl_node tree_link;
  t_tloc_id tloc;
  uint32_t preference;
};

struct t_tloc_list {
  pol::NamedHead head;
  uint8_t changed;  // the agent's text of the list must be fetched again
  pol::TailQueue<t_tloc_entry, &t_tloc_entry::link> entries;
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
  pol::TailQueue<t_pfx_entry, &t_pfx_entry::link> entries;
  pol::PfxIndex index;
  pol::UserQueue users;
};
