// SPDX-License-Identifier: Apache-2.0
// The actions of sequences of data and app-route policies. Beside the sequence's flags stand the
// policy's (t_pol_block.sets), by which label evaluation passes over whole policies. On purpose
// they are no counts: any sequence sets them and any takes them back, for all.
#include "policy/pol_fwd_action.h"

#include <algorithm>
#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "forward/pol_fwd_action_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/pol_tloc_list.h"

namespace pol {
namespace {

constexpr uint8_t kZeroAddress[16] = {};

// `ipv4`, color and encapsulation are 0 when a service is asked for.
Resolution resolve(t_pol_ctx* ctx, const t_pol_fwd_clauses& action, const t_tloc_id& asked,
                   const t_tloc_id& wanted) {
  Resolution found = {};
  if (ctx->resolve_service == nullptr) return found;
  found.tloc = wanted;
  const uint32_t ipv4 = asked.family == KEL_AF_INET ? asked.addr.v4 : 0;
  ctx->resolve_service(1, ipv4, asked.color, asked.encap, action.vpn_id, action.service,
                       action.service_local, &found.label, &found.tloc, &found.result, 0);
  found.result.count = std::min<uint32_t>(found.result.count, POL_MAX_TLOC);
  return found;
}

[[nodiscard]] bool tloc_append(t_pol_entry* entry, const t_tloc_id& tloc, uint32_t label,
                               uint32_t preference) {
  auto* record = alloc<t_tloc_entry>(MEM_TLOC_ENTRY);
  if (record == nullptr) return false;
  record->tloc = tloc_stored(tloc);
  record->label = label;
  record->preference = preference;
  entry->fwd.tlocs.push_back(record);
  return true;
}

}  // namespace

bool tloc_given(const t_tloc_id& tloc) {
  if (tloc.family == KEL_AF_INET) return tloc.addr.v4 != 0;
  return tloc.family == KEL_AF_INET6 &&
         memcmp(tloc.addr.v6, kZeroAddress, sizeof kZeroAddress) != 0;
}

Resolution resolve_service(t_pol_ctx* ctx, const t_pol_entry& entry, const t_tloc_id& wanted) {
  return resolve(ctx, entry.fwd, {}, wanted);
}

uint32_t resolve_label(t_pol_ctx* ctx, const t_pol_entry& entry, const t_tloc_id& tloc) {
  return resolve(ctx, entry.fwd, tloc, tloc).label;
}

Resolved service_tlocs_replace(t_pol_ctx* ctx, t_pol_entry* entry, const t_tloc_id& wanted) {
  fwd_tlocs_clear(entry);
  const Resolution found = resolve_service(ctx, *entry, wanted);
  if (found.result.count == 0) {
    if (found.label == 0 || tloc_append(entry, found.tloc, found.label, 0)) return Resolved::kAll;
    return Resolved::kNoMemory;
  }
  for (uint32_t i = 0; i < found.result.count; ++i) {
    const t_pol_tloc_result_entry& row = found.result.entry[i];
    if (!tloc_append(entry, row.tloc, row.label, row.preference)) return Resolved::kSome;
  }
  return Resolved::kAll;
}

}  // namespace pol

void pol_fwd_entry_vpn_upd(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn_list,
                           uint32_t sequence, uint64_t vpn) {
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  entry->fwd.vpn_id = vpn;
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

void pol_fwd_entry_tloc_upd(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn_list,
                            uint32_t sequence, uint8_t encap_given, const t_tloc_id* tloc) {
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  if (kind != POL_KIND_DATA) pol::crash("an action of another kind than data");
  t_tloc_id& stored = entry->fwd.tloc;
  if (tloc == nullptr) {
    stored = {};
    entry->fwd.tloc_label = 0;
    entry->block->sets &= ~POL_SETS_FWD_TLOC;
    entry->set_flags &= ~POL_FWD_SET_F_TLOC;
  } else {
    t_tloc_id next = pol::tloc_given(*tloc) ? pol::tloc_stored(*tloc) : stored;
    next.color = tloc->color != 0 ? tloc->color : stored.color;
    next.encap = encap_given != 0 ? tloc->encap : stored.encap;
    stored = next;
    entry->block->sets |= POL_SETS_FWD_TLOC;
    entry->set_flags |= POL_FWD_SET_F_TLOC;
  }
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

void pol_fwd_entry_svc_upd(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn_list,
                           uint32_t sequence, uint16_t service, uint8_t local, uint8_t remove) {
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  t_pol_block* policy = entry->block;
  if (service != 0) {
    entry->fwd.service = service;
    entry->fwd.service_local = local;
    policy->sets |= POL_SETS_FWD_SERVICE;
    entry->set_flags |= POL_FWD_SET_F_SERVICE;
  } else if (remove != 0) {
    entry->fwd.service = 0;
    entry->fwd.service_local = 0;
    policy->sets &= ~POL_SETS_FWD_SERVICE;
    entry->set_flags &= ~POL_FWD_SET_F_SERVICE;
  } else if ((policy->sets & POL_SETS_FWD_SERVICE) == 0) {
    return;
  }
  // A TLOC list goes before a service, and the TLOCs stay as the list made them.
  if ((entry->set_flags & POL_FWD_SET_F_TLOC_LIST) == 0) {
    pol::fwd_tlocs_clear(entry);
    if (entry->fwd.service != 0 && !pol::tloc_given(entry->fwd.tloc) &&
        pol::service_tlocs_replace(ctx, entry, {}) == pol::Resolved::kNoMemory) {
      POL_LOG("Failed to allocate memory for fwd_tloc_entry\n");
      return;
    }
  }
  pol_block_users_add_to_chg_list(ctx, policy);
}

void pol_fwd_entry_tloc_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                 const char* vpn_list, uint32_t sequence, const char* name) {
  if (kind != POL_KIND_DATA) pol::crash("an action of another kind than data");
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  uint8_t changed = 0;
  if (name != nullptr && name[0] != '\0') {
    pol_fwd_entry_set_tloc_list_add(ctx, entry, name, &changed);
  } else {
    pol_fwd_entry_set_tloc_list_delete(ctx, entry, &changed);
  }
}

// Unlike the other roles, one whose list cannot be had is not put in force.
t_pol_fwd_user* pol_fwd_entry_set_tloc_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                const char* name, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || name == nullptr) return nullptr;
  t_pol_fwd_user* user = pol::fwd_user(*entry);
  if (pol::fwd_ref_names(*entry, pol::kFwdTlocList, name)) return user;
  if (!pol::fwd_ref_replace(ctx, entry, pol::kFwdTlocList, name)) return nullptr;
  pol::mark_changed(changed);
  entry->block->sets |= POL_SETS_FWD_TLOC_LIST;
  entry->set_flags |= POL_FWD_SET_F_TLOC_LIST;
  pol_fwd_upd_set_internal_tloc_list(ctx, user, pol::list_of<t_tloc_list>(user->tloc_list));
  pol_block_users_add_to_chg_list(ctx, entry->block);
  return user;
}

void pol_fwd_entry_set_tloc_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return;
  pol::fwd_check(*entry);
  if (!pol::fwd_ref_drop(ctx, entry, pol::kFwdTlocList)) return;
  pol::mark_changed(changed);
  entry->block->sets &= ~POL_SETS_FWD_TLOC_LIST;
  pol::fwd_tlocs_clear(entry);
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

uint32_t pol_fwd_upd_set_internal_tloc_list(t_pol_ctx* ctx, t_pol_fwd_user* user,
                                            t_tloc_list* list) {
  if (ctx == nullptr || user == nullptr || user->entry == nullptr || list == nullptr) {
    return POL_EINVAL;
  }
  t_pol_entry* entry = user->entry;
  pol::fwd_tlocs_clear(entry);
  for (const t_tloc_entry& tloc : list->entries) {
    if (pol::tloc_append(entry, tloc.tloc, tloc.label, tloc.preference)) continue;
    uint8_t changed = 0;
    pol_fwd_entry_set_tloc_list_delete(ctx, entry, &changed);
    return POL_ENOMEM;
  }
  return POL_OK;
}

void pol_fwd_entry_policer_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                               const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdPolicer);
}

t_pol_fwd_user* pol_fwd_entry_set_policer_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                              uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdPolicer);
}

void pol_fwd_entry_set_policer_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdPolicer);
}
