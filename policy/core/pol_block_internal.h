// SPDX-License-Identifier: Apache-2.0
//
// pol_block_internal.h - policies, their sequences and clauses.
#pragma once

#include "base/avl_tree.h"
#include "base/tail_queue.h"
#include "core/pol_user_internal.h"
#include "lists/named_list.h"
#include "lists/pol_list_internal.h"
#include "policy/pol_block.h"

// Only the value of a clause whose flag is set means anything. List clauses keep their list in
// their user record.
struct t_pol_match {
  uint32_t type;  // enum pol_match_type; 0 until set
  uint32_t tag;
  uint32_t preference;
  uint32_t domain;
  t_pol_clause_user pfx_list;  // of those of several words what evaluation reads most
  uint32_t group;
  uint32_t site;
  uint64_t vpn_id;
  t_pol_block* block;
  uint32_t dscp;
  uint32_t proto;
  uint16_t src_port;
  uint16_t dst_port;
  uint16_t color;
  uint8_t origin_protocol;
  uint8_t origin_subtype;
  uint8_t carrier;
  t_tloc_id tloc;
  t_ipaddr originator;
  t_pol_clause_user site_list;
  t_pol_clause_user tloc_list;
  t_pol_clause_user vpn_list;
  t_pol_clause_user color_list;
};

struct t_pol_set {
  t_pol_block* block;
  uint32_t tag;
  uint32_t preference;
  uint64_t vpn_id;
  t_tloc_id tloc;
  uint16_t service;
  uint8_t ultimate_tloc;  // kel_attr_ultimate_tloc_str names it
  t_tloc_id service_tloc;
  uint64_t service_vpn;
  t_pol_clause_user vpn_list;
  t_pol_clause_user tloc_list;
};

// What makes a TLOC's encapsulation binding: the leaf beside the TLOC, or that of its service.
enum pol_encap_binds : uint8_t { POL_ENCAP_BY_TLOC = 0x1, POL_ENCAP_BY_SERVICE = 0x2 };

// What a sequence of a forwarding policy has instead of match values. Lists and other objects that
// it names stand in the roles of `user`; its match_flags and set_flags are POL_FWD_MATCH_F_* and
// POL_FWD_SET_F_*.
struct t_pol_fwd_clauses {
  t_pol_fwd_vpn_entry* vpn;  // the parent
  t_pol_fwd_user* user;      // that the same t_pol_fwd_entry holds
  t_tloc_id tloc;
  uint8_t encap_told;   // that the TLOC was configured with; its own only while something binds it
  uint8_t encap_binds;  // enum pol_encap_binds, as last told, with or without a TLOC
  uint32_t tloc_label;
  uint64_t vpn_id;
  uint16_t service;  // 0: none
  uint8_t service_local;
  uint8_t sla_option;    // strict
  uint32_t sla_value;    // mask of preferred colors
  pol::TlocQueue tlocs;  // what the TLOC list or the service resolved to
};

// Invariant: the block pointers of an entry, of its areas and of its user records are the same.
// What evaluation reads of a sequence that it passes over lies in the first 64 bytes.
struct t_pol_entry {
  uint32_t sequence;  // first: the tree's key
  uint32_t match_flags;
  pol::TailLink<t_pol_entry> order;
  uint32_t set_flags;
  uint32_t action;
  union {
    t_pol_match match;
    t_pol_fwd_clauses fwd;  // in the VPN lists of kinds data and perf route
  };
  t_pol_set set;
  avl_node link;
  t_pol_block* block;
};

// A sequence of a forwarding policy, in one piece with what the objects that it names know it by.
// Those may know it longer than the policy: then `entry` is gone and `user` is left
// (pol_fwd_block.cpp).
struct t_pol_fwd_entry {
  t_pol_entry entry;
  t_pol_fwd_user user;
};

enum pol_sets : uint8_t {
  POL_SETS_TLOC = 0x1,
  POL_SETS_SERVICE = 0x2,
  POL_SETS_TLOC_LIST = 0x4,
  // Of forwarding policies.
  POL_SETS_FWD_TLOC = 0x8,
  POL_SETS_FWD_SERVICE = 0x10,
  POL_SETS_FWD_TLOC_LIST = 0x20,
};

namespace pol {
struct PolicyIndex;
}

struct t_pol_block {
  char name[POL_NAME_SIZE];  // first: the tree's key
  avl_node link;
  uint8_t in_tree;
  uint32_t kind;
  uint8_t sets;  // enum pol_sets
  pol::AvlTree<t_pol_entry> entries;
  pol::TailQueue<t_pol_entry, &t_pol_entry::order>
      in_order;                                // the entries by sequence: what evaluation walks
  pol::AvlTree<t_pol_fwd_vpn_entry> fwd_vpns;  // kinds data and perf route only
  pol::TailQueue<t_pol_fwd_vpn_entry, &t_pol_fwd_vpn_entry::vpn_list_link> unregistered_vpns;
  pol::TailQueue<t_pol_fwd_user, &t_pol_fwd_user::leftover_link> leftovers;
  t_pol_entry default_action;
  uint8_t fetch_xml;
  uint8_t orphaned;   // a forwarding policy that was deleted and stays, empty, for its users
  uint8_t text_gone;  // of a forwarding policy: its text was taken out of the XML cache for good
  pol::BlockUsers users;
  pol::UnqueuedUsers unqueued;
  uint8_t index_due;        // the index is to be made (anew)
  pol::PolicyIndex* index;  // null: evaluation walks; owned
  pol::TailLink<t_pol_block> index_link;
};

namespace pol {

// Policies whose index is to be made when the batch is told.
using IndexQueue = TailQueue<t_pol_block, &t_pol_block::index_link>;

// A caller need not want to know.
inline void mark_changed(uint8_t* changed) {
  if (changed != nullptr) *changed = 1;
}

// Nothing when it stands in none.
void block_leave_tree(t_pol_ctx* ctx, t_pol_block* block);
// REQUIRES: out of its tree, empty and without users.
void block_free(t_pol_block* block);

inline bool is_forwarding(uint32_t kind) {
  return kind == POL_KIND_DATA || kind == POL_KIND_PERF_ROUTE;
}

// Whether the sequence has forwarding clauses. A default action has none, whatever the policy's
// kind.
inline bool is_forwarding(const t_pol_entry& entry) {
  return entry.block != nullptr && is_forwarding(entry.block->kind) &&
         &entry != &entry.block->default_action;
}

// Type of a policy's record in the XML cache; 0 for kinds that have none.
int32_t xml_type_of(uint32_t kind);

// Frees a block that was deleted while it had users, once the last of them is gone.
void fwd_block_release_if_orphaned(t_pol_ctx* ctx, t_pol_block* block);

// Frees a sequence's record by what is left of it last.
inline void fwd_record_free(t_pol_fwd_user* user) {
  pol_free(reinterpret_cast<char*>(user) - offsetof(t_pol_fwd_entry, user), MEM_FWD_ENTRY);
}

// Frees what a deleted sequence left behind, once neither DNS nor SaaS application lists know it.
void fwd_leftover_release(t_pol_fwd_user* user);

}  // namespace pol
