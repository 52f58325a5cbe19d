// SPDX-License-Identifier: Apache-2.0
// Prefix lists: elements are found by their prefix and overwritten; one kind of user, no changed
// flag, no XML record. Evaluation asks the index (pol_pfx_index.h), which every change keeps in
// step.
#include "policy/pol_pfx_list.h"

#include <cstdio>

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "kel/ipaddr.h"
#include "lists/list_directory.h"
#include "policy/pol_util.h"

namespace {

void free_entries(t_pfx_list* list) {
  list->index.clear();
  while (t_pfx_entry* entry = list->entries.pop_front()) {
    pol::directory_prefix(list->head, *entry, false);
    list->records.give(entry, entry->wide != 0);
  }
  if (!list->entries.empty()) pol::crash("elements are left in a prefix list that was emptied");
}

bool unused(const t_pfx_list& list) { return list.entries.empty() && list.users.empty(); }

void free_if_unused(t_pol_ctx* ctx, pol::NamedHead* head) {
  auto* list = reinterpret_cast<t_pfx_list*>(head);
  if (unused(*list)) pol::named_remove(ctx->pfx_lists, list, pol::MEM_PFX_LIST);
}

void release(t_pol_ctx* /*ctx*/, t_pfx_list* list) {
  free_entries(list);
  if (!list->users.empty()) pol::crash("a policy still uses a prefix list that goes");
  pol::named_release(list, pol::MEM_PFX_LIST);
}

// Bits of an address; lengths of unknown families are not judged.
uint8_t width_of(uint32_t family) {
  return family == KEL_AF_INET ? 32 : family == KEL_AF_INET6 ? 128 : UINT8_MAX;
}

t_pfx_list* find_or_create(t_pol_ctx* ctx, const char* name, uint8_t* created) {
  return pol::named_find_or_create(ctx->pfx_lists, name, pol::MEM_PFX_LIST, free_if_unused,
                                   created);
}

// A new element at the place that the index keeps for it, if any; null and nothing changed when
// memory runs out.
t_pfx_entry* entry_create(t_pfx_list* list, const t_pol_pfx_record& record, pol::TrieCell* place) {
  const bool wide = pol::pfx_is_wide(record.prefix);
  auto* entry = list->records.make(wide);
  if (entry == nullptr) {
    if (place != nullptr) list->index.give_up(record.prefix);
    return nullptr;
  }
  pol::pfx_entry_fill(entry, record);
  if (place != nullptr) {
    list->index.settle(place, entry);
  } else if (!list->index.add(entry)) {
    list->records.give(entry, wide);
    return nullptr;
  }
  list->entries.push_back(entry);
  pol::directory_prefix(list->head, *entry, true);
  return entry;
}

bool entry_change(t_pfx_list* list, t_pfx_entry* entry, const t_pol_pfx_record& record) {
  pol::directory_prefix(list->head, *entry, false);
  const bool changed = list->index.change(entry, record);
  pol::directory_prefix(list->head, *entry, true);
  return changed;
}

void tell_all(t_pol_ctx* ctx, const t_pfx_list& list) {
  pol::mark_blocks(ctx, list.users);
  pol_user_chg_list_notify_all(ctx);
}

}  // namespace

uint32_t pol_pfx_list_main_init(t_pol_ctx* ctx) {
  return pol::named_init(ctx, &t_pol_ctx::pfx_lists);
}

uint32_t pol_pfx_list_main_deinit(t_pol_ctx* ctx) {
  return pol::named_deinit(ctx, &t_pol_ctx::pfx_lists, release);
}

uint32_t pol_pfx_list_entry_add(t_pol_ctx* ctx, const char* name, const t_pol_pfx_record* record) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (name == nullptr || record == nullptr) return POL_EINVAL;
  if (record->prefix.len > width_of(record->prefix.addr.family)) return POL_EINVAL;
  uint8_t created = 0;
  t_pfx_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return POL_ENOMEM;
  pol::PfxIndex::Kept kept;
  const bool room = list->index.find_or_keep(record->prefix, &kept);
  if (kept.element != nullptr) {
    if (!entry_change(list, kept.element, *record)) return POL_ENOMEM;
  } else if (!room || entry_create(list, *record, kept.place) == nullptr) {
    if (created != 0) {
      if (!unused(*list)) pol::crash("a prefix list that was not made after all is in use");
      pol::named_remove(ctx->pfx_lists, list, pol::MEM_PFX_LIST);
    }
    return POL_ENOMEM;
  }
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_pfx_list_del_entry(t_pol_ctx* ctx, const char* name, const t_pol_pfx_record* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return POL_OK;
  t_pfx_list* list = pol::named_find(ctx->pfx_lists, name);
  t_pfx_entry* entry = list != nullptr ? list->index.take(record->prefix) : nullptr;
  if (entry == nullptr) return POL_OK;
  pol::directory_prefix(list->head, *entry, false);
  list->entries.remove(entry);
  list->records.give(entry, entry->wide != 0);
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_pfx_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  t_pfx_list* list = pol::named_find(ctx, &t_pol_ctx::pfx_lists, name);
  if (list == nullptr) return POL_OK;
  free_entries(list);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_pfx_list* pol_pfx_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_clause_user* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_pfx_list* list = find_or_create(ctx, name, &created);
  if (list != nullptr) pol::user_add(ctx, &list->head, list->users, record);
  return list;
}

uint32_t pol_pfx_list_user_remove(t_pol_ctx* ctx, t_pfx_list* list, t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_pfx_list::users, record);
}

// On purpose: the users come before the end, unlike in the other lists' dumps.
void pol_dump_pfx_list(t_pfx_list* list, t_cli_user_ctx* cli) {
  if (list == nullptr) return;
  maapi_cli_printf(cli, "\nprefix-list: %s (%p)", list->head.name, static_cast<void*>(list));
  for (const t_pfx_entry& entry : list->entries) {
    char address[128];
    char prefix[512];
    const t_ipaddr addr = pol::pfx_address(entry);
    snprintf(prefix, sizeof prefix, "%s/%u", ipaddr_print(&addr, address, sizeof address),
             unsigned{entry.len});
    maapi_cli_printf(cli, "\n  prefix %s %s min %d max %d", prefix, pol_util_pfx_op_str(entry.op),
                     int{entry.min}, int{entry.max});
  }
  pol::dump_list_users(cli, list->users);
  maapi_cli_printf(cli, "\nend \n");
}

int pol_dump_pfx_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                          char** /*argv*/) {
  return pol::dump_lists(cli, "\n              PREFIX LISTS         ", &t_pol_ctx::pfx_lists,
                         pol_dump_pfx_list);
}
