// SPDX-License-Identifier: Apache-2.0
// TLOC lists: entries are found by their TLOC and overwritten; two kinds of user, a changed and a
// label pending flag, a record in the XML cache.
#include "policy/pol_tloc_list.h"

#include <cassert>
#include <cstring>

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "kel/tloc.h"
#include "lists/list_directory.h"
#include "policy/pol_fwd_action.h"
#include "policy/pol_fwd_label.h"
#include "policy/pol_xml_config.h"

namespace {

// Orders TLOCs. Meeting an entry of the same family that is neither IPv4 nor IPv6 is a broken
// invariant; a look-up in the tree meets one whenever there is one.
int tloc_compare(const void* key, const void* node) {
  const t_tloc_id& a = *static_cast<const t_tloc_id*>(key);
  const t_tloc_id& b = static_cast<const t_tloc_entry*>(node)->tloc;
  if (a.family != b.family) return a.family < b.family ? -1 : 1;
  if (a.family == KEL_AF_INET) {
    if (a.addr.v4 != b.addr.v4) return a.addr.v4 < b.addr.v4 ? -1 : 1;
  } else {
    assert(a.family == KEL_AF_INET6);
    int order = memcmp(a.addr.v6, b.addr.v6, sizeof a.addr.v6);
    if (order != 0) return pol::sign(order);
  }
  if (a.color != b.color) return a.color < b.color ? -1 : 1;
  return pol::sign(a.encap - b.encap);
}

bool unused(const t_tloc_list& list) {
  return list.entries.empty() && list.users.empty() && list.action_users.empty();
}

void entry_free(t_tloc_list* list, t_tloc_entry* entry) {
  pol::directory_tloc(list->head, entry->tloc, false);
  list->by_tloc.remove(entry);
  list->entries.remove(entry);
  pol_free(entry, pol::MEM_TLOC_ENTRY);
}

void free_entries(t_tloc_list* list) {
  while (t_tloc_entry* entry = list->entries.front()) entry_free(list, entry);
  if (!list->entries.empty()) pol::crash("elements are left in a TLOC list that was emptied");
}

void node_free(t_pol_ctx* ctx, t_tloc_list* list, bool remove_from_tree) {
  if (!unused(*list)) pol::crash("a TLOC list that goes is in use");
  list->by_tloc.destroy();
  if (remove_from_tree) ctx->tloc_lists.remove(list);
  pol_xml_config_find_and_delete(POL_XML_TLOC_LIST, list->head.name);
  pol::named_release(list, pol::MEM_TLOC_LIST);
}

void free_if_unused(t_pol_ctx* ctx, pol::NamedHead* head) {
  auto* list = reinterpret_cast<t_tloc_list*>(head);
  if (unused(*list)) node_free(ctx, list, true);
}

void release(t_pol_ctx* ctx, t_tloc_list* list) {
  free_entries(list);
  node_free(ctx, list, false);
}

t_tloc_list* find_or_create(t_pol_ctx* ctx, const char* name, uint8_t* created) {
  t_tloc_list* list =
      pol::named_find_or_create(ctx->tloc_lists, name, pol::MEM_TLOC_LIST, free_if_unused, created);
  if (*created != 0) {
    list->by_tloc.create(tloc_compare, offsetof(t_tloc_entry, tree_link));
    pol_xml_config_find_or_create(POL_XML_TLOC_LIST, list->head.name);
    list->changed = 1;
  }
  return list;
}

void tell_all(t_pol_ctx* ctx, const t_tloc_list& list) {
  pol::mark_blocks(ctx, list.users);
  pol::mark_blocks(ctx, list.action_users);
  pol_user_chg_list_notify_all(ctx);
}

t_tloc_list* user_add(t_pol_ctx* ctx, const char* name, pol::UserQueue t_tloc_list::*queue,
                      t_pol_clause_user* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_tloc_list* list = find_or_create(ctx, name, &created);
  if (list != nullptr) pol::user_add(ctx, &list->head, list->*queue, record);
  return list;
}

// The sequence of a data policy whose action the user is; null for set clauses of route policies and
// of default actions.
t_pol_fwd_user* data_policy_action(const t_pol_clause_user& user) {
  const t_pol_entry* entry = user.entry;
  if (entry == nullptr || !pol::is_forwarding(*entry)) return nullptr;
  return entry->block->kind == POL_KIND_DATA ? entry->fwd.user : nullptr;
}

// Gives every data policy's action the list's TLOCs and labels them. On purpose a list without such
// actions stays label pending. An action that finds no memory leaves the list.
void label_users(void* arg, t_pol_ctx* ctx, t_tloc_list* list) {
  t_pol_clause_user* next = nullptr;
  for (t_pol_clause_user* user = list->action_users.front(); user != nullptr; user = next) {
    next = pol::UserQueue::next(user);
    t_pol_fwd_user* action = data_policy_action(*user);
    if (action == nullptr) continue;
    list->label_pending = 0;
    pol_fwd_upd_set_internal_tloc_list(ctx, action, list);
    pol_fwd_upd_label_set_entry(arg, ctx, action);
  }
}

}  // namespace

uint32_t pol_tloc_list_main_init(t_pol_ctx* ctx) {
  return pol::named_init(ctx, &t_pol_ctx::tloc_lists);
}

uint32_t pol_tloc_list_main_deinit(t_pol_ctx* ctx) {
  return pol::named_deinit(ctx, &t_pol_ctx::tloc_lists, release);
}

t_tloc_list* pol_tloc_list_find(t_pol_ctx* ctx, const char* name) {
  return pol::named_find(ctx, &t_pol_ctx::tloc_lists, name);
}

t_tloc_entry* pol_tloc_list_find_entry(t_pol_ctx* ctx, const char* name, const t_tloc_id* tloc) {
  t_tloc_list* list = pol_tloc_list_find(ctx, name);
  return list != nullptr && tloc != nullptr ? list->by_tloc.find(tloc) : nullptr;
}

uint32_t pol_tloc_list_add_entry(t_pol_ctx* ctx, const char* name, const t_tloc_id* tloc,
                                 uint32_t preference) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (name == nullptr || tloc == nullptr) return POL_EINVAL;
  uint8_t created = 0;
  t_tloc_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return POL_ENOMEM;
  avl_index where = 0;
  t_tloc_entry* entry = list->by_tloc.find(tloc, &where);
  list->changed = 1;
  if (entry == nullptr) {
    entry = pol::alloc<t_tloc_entry>(pol::MEM_TLOC_ENTRY);
    if (entry == nullptr) {
      if (created != 0) node_free(ctx, list, true);
      return POL_ENOMEM;
    }
    entry->tloc = pol::tloc_stored(*tloc);
    list->entries.push_back(entry);
    list->by_tloc.insert(entry, where);
    pol::directory_tloc(list->head, entry->tloc, true);
  }
  entry->preference = preference;
  // A list made by this very add has no actions whose labels could be pending.
  if (created == 0) list->label_pending = 1;
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_tloc_list_del_entry(t_pol_ctx* ctx, const char* name, const t_tloc_id* tloc) {
  t_tloc_list* list = pol_tloc_list_find(ctx, name);
  if (list == nullptr || tloc == nullptr) return POL_OK;
  list->changed =
      1;  // on purpose before the look-up: a missed delete still has the text fetched again
  t_tloc_entry* entry = list->by_tloc.find(tloc);
  if (entry == nullptr) return POL_OK;
  entry_free(list, entry);
  list->label_pending = 1;
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_tloc_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  t_tloc_list* list = pol_tloc_list_find(ctx, name);
  if (list == nullptr) return POL_OK;
  free_entries(list);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_tloc_list* pol_tloc_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_clause_user* record) {
  return user_add(ctx, name, &t_tloc_list::users, record);
}

t_tloc_list* pol_tloc_list_action_user_add(t_pol_ctx* ctx, const char* name,
                                           t_pol_clause_user* record) {
  return user_add(ctx, name, &t_tloc_list::action_users, record);
}

uint32_t pol_tloc_list_user_remove(t_pol_ctx* ctx, t_tloc_list* list, t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_tloc_list::users, record);
}

uint32_t pol_tloc_list_action_user_remove(t_pol_ctx* ctx, t_tloc_list* list,
                                          t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_tloc_list::action_users, record);
}

t_tloc_list* pol_tloc_list_first(t_pol_ctx* ctx) {
  return ctx != nullptr ? ctx->tloc_lists.first() : nullptr;
}

t_tloc_list* pol_tloc_list_next(t_pol_ctx* ctx, t_tloc_list* list) {
  return ctx != nullptr && list != nullptr ? ctx->tloc_lists.next(list) : nullptr;
}

void pol_tloc_list_update_fwd_pol_label(void* arg, t_pol_ctx* ctx) {
  if (ctx == nullptr) return;
  for (t_tloc_list* list = ctx->tloc_lists.first(); list != nullptr;
       list = ctx->tloc_lists.next(list)) {
    if (list->label_pending != 0) label_users(arg, ctx, list);
  }
  pol_user_chg_list_notify_all(ctx);
}

// On purpose: action users are not shown.
void pol_dump_tloc_list(t_tloc_list* list, t_cli_user_ctx* cli) {
  if (list == nullptr) return;
  maapi_cli_printf(cli, "\ntloc-list: %s (%p, %u)", list->head.name, static_cast<void*>(list),
                   unsigned{list->changed});
  for (const t_tloc_entry& entry : list->entries) {
    char text[512];
    maapi_cli_printf(cli, "\n  tloc %s preference %u",
                     tloc_id_print_short(&entry.tloc, text, sizeof text), entry.preference);
  }
  maapi_cli_printf(cli, "\nend \n");
  pol::dump_list_users(cli, list->users);
}

int pol_dump_tloc_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                           char** /*argv*/) {
  return pol::dump_lists(cli, "\n              TLOC LISTS           ", &t_pol_ctx::tloc_lists,
                         pol_dump_tloc_list);
}
