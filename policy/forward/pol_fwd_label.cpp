// SPDX-License-Identifier: Apache-2.0
// Labels of data policies' sequences: which ones a change of a label concerns, and the request that
// has them written.
#include "policy/pol_fwd_label.h"

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_clause_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "forward/pol_fwd_action_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/pol_xml_config.h"

namespace {

constexpr uint8_t kSetsLabeled = POL_SETS_FWD_TLOC | POL_SETS_FWD_SERVICE | POL_SETS_FWD_TLOC_LIST;

// What a change of a label is about.
struct LabelChange {
  t_tloc_id tloc;  // its encapsulation, 0, stands for any
  uint64_t vpn;
  uint32_t service;
};

bool has(const t_pol_entry& entry, uint32_t flag) { return (entry.set_flags & flag) != 0; }

t_ipaddr address_of(const t_tloc_id& tloc) {
  t_ipaddr address = {tloc.family, {}};
  memcpy(&address.addr, &tloc.addr, sizeof address.addr);
  return address;
}

bool forwards_to(const t_pol_entry& entry, const t_tloc_id& tloc) {
  for (const t_tloc_entry& record : entry.fwd.tlocs) {
    t_tloc_id other = record.tloc;
    other.encap = tloc.encap;
    if (pol::tloc_same(other, tloc)) return true;
  }
  return false;
}

enum class Concern { kNone, kLabels, kService };

// Whether the change concerns the sequence: the labels of what it forwards to, or what its service
// resolves to.
Concern concern_of(const t_pol_entry& entry, const LabelChange& change) {
  if (entry.fwd.vpn_id != change.vpn) return Concern::kNone;
  const bool service = has(entry, POL_FWD_SET_F_SERVICE);
  if (service && entry.fwd.service != change.service) return Concern::kNone;
  if (has(entry, POL_FWD_SET_F_TLOC) &&
      pol::address_equal(address_of(entry.fwd.tloc), address_of(change.tloc))) {
    return Concern::kLabels;
  }
  if (has(entry, POL_FWD_SET_F_TLOC_LIST) && forwards_to(entry, change.tloc)) {
    return Concern::kLabels;
  }
  return service ? Concern::kService : Concern::kNone;
}

// False when memory ran out: the rest of the policy is not labeled then.
bool eval_entry(t_pol_ctx* ctx, t_pol_entry* entry, const LabelChange& change) {
  const Concern concern = concern_of(*entry, change);
  if (concern == Concern::kNone) return true;
  if (concern == Concern::kService &&
      pol::service_tlocs_replace(ctx, entry, change.tloc) != pol::Resolved::kAll) {
    return false;
  }
  pol_fwd_upd_label_set_entry(nullptr, ctx, entry->fwd.user);
  return true;
}

bool eval_block(t_pol_ctx* ctx, const t_pol_block& block, const LabelChange& change) {
  for (auto* vpn = block.fwd_vpns.first(); vpn != nullptr; vpn = block.fwd_vpns.next(vpn)) {
    for (t_pol_entry* entry = vpn->entries.first(); entry != nullptr;
         entry = vpn->entries.next(entry)) {
      if (!eval_entry(ctx, entry, change)) return false;
    }
  }
  return true;
}

void add_label(t_pol_ctx* ctx, const t_pol_entry& entry, const t_tloc_id& tloc,
               t_pol_label_set* set) {
  if (set->count == POL_MAX_TLOC) return;
  const uint32_t label = pol::resolve_label(ctx, entry, tloc);
  set->tlocs[set->count++] = {tloc, label};
  if (set->vpn_label == 0) set->vpn_label = label;
}

// An explicit TLOC keeps its label: dumps show it.
void fill_label_set(t_pol_ctx* ctx, t_pol_entry* entry, t_pol_label_set* set) {
  pol::copy_name(set->policy, entry->block->name);
  pol::copy_name(set->vpn_list, entry->fwd.vpn->name);
  set->sequence = entry->sequence;
  if (pol::tloc_given(entry->fwd.tloc)) {
    add_label(ctx, *entry, entry->fwd.tloc, set);
    entry->fwd.tloc_label = set->vpn_label;
    return;
  }
  for (const t_tloc_entry& record : entry->fwd.tlocs) add_label(ctx, *entry, record.tloc, set);
}

}  // namespace

void pol_fwd_eval_label(t_pol_ctx* ctx, void* /*ignored*/, uint32_t ipv4, uint32_t color,
                        uint64_t vpn, uint32_t service) {
  if (ctx == nullptr) return;
  LabelChange change = {{}, vpn, service};
  change.tloc.family = KEL_AF_INET;
  change.tloc.addr.v4 = ipv4;
  change.tloc.color = static_cast<uint8_t>(color);
  for (t_pol_block* block = pol_block_first(ctx, POL_KIND_DATA); block != nullptr;
       block = pol_block_next(ctx, block, POL_KIND_DATA)) {
    if ((block->sets & kSetsLabeled) == 0) continue;
    if (!eval_block(ctx, *block, change)) POL_LOG("Failed to allocate memory for fwd_tloc_entry\n");
  }
  pol_user_chg_list_notify_all(ctx);
}

void pol_fwd_upd_label(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn_list,
                       uint32_t sequence) {
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry != nullptr) pol_fwd_upd_label_set_entry(nullptr, ctx, entry->fwd.user);
}

void pol_fwd_upd_label_set_entry(void* /*ignored*/, t_pol_ctx* ctx, t_pol_fwd_user* user) {
  if (ctx == nullptr || user == nullptr || user->entry == nullptr) return;
  t_pol_block* block = user->entry->block;
  t_pol_label_set set = {};
  fill_label_set(ctx, user->entry, &set);
  POL_LOG("pol_fwd_set_tloc_label_set\n");
  pol::thread_push_labels(&ctx->thread, set);
  // The worker works label sets first, so that this fetches the policy with its labels.
  pol::thread_push_fetch(&ctx->thread, pol::QUEUE_LABEL_FETCH, POL_XML_DATA_POLICY, block->name);
  pol_block_users_add_to_chg_list(ctx, block);
}

void pol_fwd_entry_seq_mod(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn_list,
                           uint32_t sequence) {
  t_pol_entry* entry = pol::fwd_find(ctx, block, kind, vpn_list, sequence).entry;
  if (entry != nullptr) pol_block_users_add_to_chg_list(ctx, entry->block);
}
