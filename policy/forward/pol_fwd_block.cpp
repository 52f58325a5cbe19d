// SPDX-License-Identifier: Apache-2.0
// Data and app-route policies: a tree of VPN lists, in each a tree of sequences. Deleting a parent
// deletes its children first, without taking them out of the tree that is being drained.
#include "policy/pol_fwd_block.h"

#include <cstring>
#include <initializer_list>
#include <iterator>

#include "base/pol_crash.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_clause_internal.h"
#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/pol_clause.h"
#include "policy/pol_vpn_list.h"
#include "policy/pol_xml_config.h"

namespace pol {
namespace {

void bind(t_pol_fwd_user* user, t_pol_block* block, t_pol_entry* entry) {
  user->entry = entry;
  for (const FwdRef* ref : kFwdRefs) {
    t_pol_clause_user* role = &(user->*ref->user);
    role->block = block;
    role->entry = entry;
  }
}

int fwd_vpn_compare(const void* key, const void* node) {
  return sign(
      strncmp(static_cast<const char*>(key), static_cast<const char*>(node), POL_NAME_SIZE));
}

t_pol_fwd_vpn_entry* vpn_find(t_pol_block* block, const char* name, avl_index* where = nullptr) {
  if (name == nullptr) return nullptr;
  char key[POL_NAME_SIZE];
  copy_name(key, name);
  return block->fwd_vpns.find(key, where);
}

// On purpose: what DNS and SaaS application lists know of the sequence stays with them, bound to
// the block while that lives and to nothing afterwards; and with it the sequence's record.
void entry_release(t_pol_block* block, t_pol_fwd_user* user) {
  for (t_pol_clause_user* role : {&user->dns_app_list, &user->saas_app_list}) {
    if (!is_stale(*role)) continue;
    role->queue->remove(role);
    role->list = nullptr;
    role->queue = nullptr;
  }
  if (user->dns_app_list.list == nullptr && user->saas_app_list.list == nullptr) {
    return fwd_record_free(user);
  }
  bind(user, block, nullptr);
  block->leftovers.push_back(user);
}

// The objects that a sequence leaves when it goes, in their order, behind its TLOC list.
constexpr const FwdRef* kLeaving[] = {&kFwdSrcPfx, &kFwdDstPfx,  &kFwdSrcPfx6,  &kFwdDstPfx6,
                                      &kFwdAppId,  &kFwdAppList, &kFwdSlaClass, &kFwdPolicer};
constexpr size_t kStaying = 2;  // DNS and SaaS application lists
static_assert(std::size(kLeaving) + 1 + kStaying == kFwdRoles);

void entry_delete(t_pol_ctx* ctx, t_pol_entry* entry, bool remove_from_tree) {
  t_pol_block* block = entry->block;
  fwd_ref_drop(ctx, entry, kFwdTlocList);
  fwd_tlocs_clear(entry);
  for (const FwdRef* ref : kLeaving) {
    if (fwd_ref_drop(ctx, entry, *ref)) pol_block_users_add_to_chg_list(ctx, block);
    // A host may have registered the record itself, past the sequence.
    if (NamedHead* object = fwd_object(*entry, *ref)) ref->remove(ctx, object, entry->fwd.user);
  }
  if (remove_from_tree) entry->fwd.vpn->entries.remove(entry);
  entry_release(block, entry->fwd.user);
  pol_block_users_add_to_chg_list(ctx, block);
}

void vpn_delete(t_pol_ctx* ctx, t_pol_fwd_vpn_entry* vpn, bool remove_from_tree) {
  t_pol_block* block = vpn->block;
  void* cookie = nullptr;
  while (t_pol_entry* entry = vpn->entries.drain(&cookie)) entry_delete(ctx, entry, false);
  vpn->entries.destroy();
  pol_vpn_list_fwd_pol_user_remove(ctx, vpn->vpn_list, vpn);
  if (remove_from_tree) block->fwd_vpns.remove(vpn);
  pol_free(vpn, MEM_FWD_VPN_ENTRY);
  pol_block_users_add_to_chg_list(ctx, block);
}

void fwd_block_free(t_pol_block* block) {
  while (t_pol_fwd_user* user = block->leftovers.pop_front()) bind(user, nullptr, nullptr);
  while (t_pol_fwd_vpn_entry* vpn = block->unregistered_vpns.pop_front()) {
    pol_free(vpn, MEM_FWD_VPN_ENTRY);
  }
  block->fwd_vpns.destroy();
  block_free(block);
}

}  // namespace

FwdPlace fwd_find(t_pol_ctx* ctx, const char* block_name, uint32_t kind, const char* vpn_list,
                  uint32_t sequence) {
  if (!is_forwarding(kind)) crash("a kind without VPN lists");
  FwdPlace place = {};
  place.block = pol_block_find(ctx, block_name, kind, nullptr);
  if (place.block != nullptr) place.vpn = vpn_find(place.block, vpn_list);
  if (place.vpn != nullptr) place.entry = place.vpn->entries.find(&sequence);
  return place;
}

void fwd_tlocs_clear(t_pol_entry* entry) {
  while (t_tloc_entry* tloc = entry->fwd.tlocs.pop_front()) pol_free(tloc, MEM_TLOC_ENTRY);
}

}  // namespace pol

uint32_t pol_fwd_block_init(t_pol_ctx* /*ctx*/, t_pol_block* block) {
  if (block == nullptr) return POL_EINVAL;
  if (block->fwd_vpns.first() != nullptr) return POL_OK;
  block->fwd_vpns.create(pol::fwd_vpn_compare, offsetof(t_pol_fwd_vpn_entry, link));
  return POL_OK;
}

// Whether the policy stands in its tree is known to the policy, whatever the caller says.
void pol_fwd_block_delete(t_pol_ctx* ctx, avl_tree* /*tree*/, t_pol_block* block,
                          uint8_t /*remove_from_tree*/) {
  if (ctx == nullptr || block == nullptr) return;
  if (!pol::is_forwarding(block->kind)) pol::crash("a block of another kind");
  void* cookie = nullptr;
  while (t_pol_fwd_vpn_entry* vpn = block->fwd_vpns.drain(&cookie)) {
    pol::vpn_delete(ctx, vpn, false);
  }
  // Text policy files give forwarding policies default actions with clauses; those are on lists.
  uint8_t changed = 0;
  pol_entry_set_delete(ctx, &block->default_action, &changed);
  pol_entry_match_delete(ctx, &block->default_action, &changed);
  pol::entry_reset(&block->default_action, block);
  const bool kept = !block->users.empty();
  // At the end of the context the cache goes before the users for whom the policy is kept.
  if (block->text_gone == 0 && (!kept || pol::destroying(ctx))) {
    pol_xml_config_find_and_delete(pol::xml_type_of(block->kind), block->name);
    block->text_gone = 1;
  }
  if (kept) {
    block->orphaned = 1;
    pol_block_users_add_to_chg_list(ctx, block);
    return;
  }
  pol::block_leave_tree(ctx, block);
  pol::fwd_block_free(block);
}

t_pol_fwd_vpn_entry* pol_fwd_vpn_find_or_create(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                                const char* vpn_list) {
  if (!pol::is_forwarding(kind)) pol::crash("a kind without VPN lists");
  t_pol_block* policy = pol_block_find(ctx, block, kind, nullptr);
  if (policy == nullptr || vpn_list == nullptr) return nullptr;
  avl_index where = 0;
  t_pol_fwd_vpn_entry* vpn = pol::vpn_find(policy, vpn_list, &where);
  if (vpn != nullptr) return vpn;
  vpn = pol::alloc<t_pol_fwd_vpn_entry>(pol::MEM_FWD_VPN_ENTRY);
  if (vpn == nullptr) return nullptr;
  pol::copy_name(vpn->name, vpn_list);
  vpn->entries.create(pol_entry_cmp, offsetof(t_pol_entry, link));
  vpn->block = policy;
  if (pol_vpn_list_fwd_pol_user_add(ctx, vpn->name, vpn) == nullptr) {
    policy->unregistered_vpns.push_back(vpn);  // on purpose not freed before its policy is
    return nullptr;
  }
  policy->fwd_vpns.insert(vpn, where);
  policy->orphaned = 0;
  pol_block_users_add_to_chg_list(ctx, policy);
  return vpn;
}

void pol_fwd_vpn_find_and_delete(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                 const char* vpn_list) {
  t_pol_fwd_vpn_entry* vpn = pol::fwd_find(ctx, block, kind, vpn_list, 0).vpn;
  if (vpn != nullptr) pol::vpn_delete(ctx, vpn, true);
}

t_pol_entry* pol_fwd_entry_find_or_create(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                          const char* vpn_list, int32_t sequence) {
  uint32_t masked = static_cast<uint32_t>(sequence) & 0xffff;
  t_pol_fwd_vpn_entry* vpn = pol::fwd_find(ctx, block, kind, vpn_list, masked).vpn;
  if (vpn == nullptr) return nullptr;
  avl_index where = 0;
  t_pol_entry* entry = vpn->entries.find(&masked, &where);
  if (entry != nullptr) return entry;
  auto* record = pol::alloc<t_pol_fwd_entry>(pol::MEM_FWD_ENTRY);
  if (record == nullptr) return nullptr;
  entry = &record->entry;
  entry->fwd.user = &record->user;
  entry->sequence = masked;
  entry->block = vpn->block;
  entry->fwd.vpn = vpn;
  pol::bind(entry->fwd.user, vpn->block, entry);
  vpn->entries.insert(entry, where);
  return entry;
}

void pol_fwd_entry_find_and_delete(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                   const char* vpn_list, int32_t sequence) {
  t_pol_entry* entry =
      pol::fwd_find(ctx, block, kind, vpn_list, static_cast<uint32_t>(sequence)).entry;
  if (entry != nullptr) pol::entry_delete(ctx, entry, true);
}
