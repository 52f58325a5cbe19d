// SPDX-License-Identifier: Apache-2.0
// What sequences of data and app-route policies match on, and the SLA class, which is named the
// same way though it is an action.
#include "policy/pol_fwd_match.h"

#include "base/pol_crash.h"
#include "forward/pol_fwd_ref.h"

void pol_fwd_entry_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdAppList);
}

void pol_fwd_entry_dns_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                    const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdDnsAppList);
}

void pol_fwd_entry_saas_app_list_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                     const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdSaasAppList);
}

void pol_fwd_entry_src_pfx_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                               const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdSrcPfx);
}

void pol_fwd_entry_dst_pfx_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                               const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdDstPfx);
}

void pol_fwd_entry_src_pfx6_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdSrcPfx6);
}

void pol_fwd_entry_dst_pfx6_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdDstPfx6);
}

void pol_fwd_entry_app_id_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                              const char* vpn_list, uint32_t sequence, const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn_list, sequence, name, pol::kFwdAppId);
}

t_pol_fwd_user* pol_fwd_entry_match_src_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                 const char* name, uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdSrcPfx);
}

void pol_fwd_entry_match_src_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdSrcPfx);
}

t_pol_fwd_user* pol_fwd_entry_match_dst_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                 const char* name, uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdDstPfx);
}

void pol_fwd_entry_match_dst_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdDstPfx);
}

t_pol_fwd_user* pol_fwd_entry_match_src6_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  const char* name, uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdSrcPfx6);
}

void pol_fwd_entry_match_src6_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdSrcPfx6);
}

t_pol_fwd_user* pol_fwd_entry_match_dst6_list_add(t_pol_ctx* ctx, t_pol_entry* entry,
                                                  const char* name, uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdDstPfx6);
}

void pol_fwd_entry_match_dst6_list_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdDstPfx6);
}

t_pol_fwd_user* pol_fwd_entry_match_app_id_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                               uint8_t* changed) {
  return pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdAppId);
}

void pol_fwd_entry_match_app_id_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  pol::fwd_ref_delete(ctx, entry, changed, pol::kFwdAppId);
}

t_pol_fwd_user* pol_fwd_entry_sla_class_add(t_pol_ctx* ctx, t_pol_entry* entry, const char* name,
                                            uint8_t option, uint32_t value, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr) return nullptr;
  if (name == nullptr || entry->block->kind != POL_KIND_PERF_ROUTE) {
    pol::crash("an SLA class without a name, or of another kind than perf route");
  }
  if (!pol::fwd_ref_names(*entry, pol::kFwdSlaClass, name)) {
    t_pol_fwd_user* user = pol::fwd_ref_add(ctx, entry, name, changed, pol::kFwdSlaClass);
    if (user == nullptr) return nullptr;
  } else if (entry->fwd.sla_option != option || entry->fwd.sla_value != value) {
    // On purpose: nobody is queued here; the operation by path does so for what it changed.
    pol::mark_changed(changed);
  }
  entry->fwd.sla_option = option;
  entry->fwd.sla_value = value;
  return entry->fwd.user;
}

void pol_fwd_entry_sla_class_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || !pol::fwd_ref_drop(ctx, entry, pol::kFwdSlaClass)) {
    return;
  }
  entry->fwd.sla_option = 0;  // on purpose without the value, which stays
  pol::mark_changed(changed);
  pol_block_users_add_to_chg_list(ctx, entry->block);
}

void pol_fwd_entry_sla_class_upd(t_pol_ctx* ctx, const char* block, uint32_t kind,
                                 const char* vpn_list, uint32_t sequence, const char* name,
                                 uint8_t option, uint32_t value, uint8_t remove) {
  if (kind != POL_KIND_PERF_ROUTE) pol::crash("an SLA class of another kind than perf route");
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry == nullptr) return;
  uint8_t changed = 0;
  if (remove != 0) {
    pol_fwd_entry_sla_class_delete(ctx, entry, &changed);
  } else if (name != nullptr && name[0] != '\0') {
    pol_fwd_entry_sla_class_add(ctx, entry, name, option, value, &changed);
    if (changed != 0) pol_block_users_add_to_chg_list(ctx, entry->block);
  }
}
