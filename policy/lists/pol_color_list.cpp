// SPDX-License-Identifier: Apache-2.0
// Color lists: one kind of user, no changed flag, no XML record.
#include "policy/pol_color_list.h"

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "kel/tloc.h"
#include "lists/list_directory.h"

namespace {

int color_compare(const void* key, const void* node) {
  return pol::sign(*static_cast<const uint16_t*>(key) -
                   static_cast<const t_color_entry*>(node)->color);
}

bool unused(const t_color_list& list) { return list.entries.empty() && list.users.empty(); }

void entry_free(t_color_list* list, t_color_entry* entry) {
  pol::directory_color(list->head, entry->color, false);
  list->by_color.remove(entry);
  list->entries.remove(entry);
  pol_free(entry, pol::MEM_COLOR_ENTRY);
}

void free_entries(t_color_list* list) {
  while (t_color_entry* entry = list->entries.front()) entry_free(list, entry);
  if (!list->entries.empty()) pol::crash("elements are left in a color list that was emptied");
}

void node_free(t_pol_ctx* ctx, t_color_list* list, bool remove_from_tree) {
  if (!unused(*list)) pol::crash("a color list that goes is in use");
  list->by_color.destroy();
  if (remove_from_tree) ctx->color_lists.remove(list);
  pol::named_release(list, pol::MEM_COLOR_LIST);
}

void free_if_unused(t_pol_ctx* ctx, pol::NamedHead* head) {
  auto* list = reinterpret_cast<t_color_list*>(head);
  if (unused(*list)) node_free(ctx, list, true);
}

void release(t_pol_ctx* ctx, t_color_list* list) {
  free_entries(list);
  node_free(ctx, list, false);
}

t_color_list* find_or_create(t_pol_ctx* ctx, const char* name, uint8_t* created) {
  t_color_list* list = pol::named_find_or_create(ctx->color_lists, name, pol::MEM_COLOR_LIST,
                                                 free_if_unused, created);
  if (*created != 0) list->by_color.create(color_compare, offsetof(t_color_entry, tree_link));
  return list;
}

void tell_all(t_pol_ctx* ctx, const t_color_list& list) {
  pol::mark_blocks(ctx, list.users);
  pol_user_chg_list_notify_all(ctx);
}

}  // namespace

uint32_t pol_color_list_main_init(t_pol_ctx* ctx) {
  return pol::named_init(ctx, &t_pol_ctx::color_lists);
}

uint32_t pol_color_list_main_deinit(t_pol_ctx* ctx) {
  return pol::named_deinit(ctx, &t_pol_ctx::color_lists, release);
}

t_color_list* pol_color_list_find(t_pol_ctx* ctx, const char* name) {
  return pol::named_find(ctx, &t_pol_ctx::color_lists, name);
}

t_color_entry* pol_color_list_find_entry(t_pol_ctx* ctx, const char* name, uint16_t color) {
  t_color_list* list = pol_color_list_find(ctx, name);
  return list != nullptr ? list->by_color.find(&color) : nullptr;
}

uint32_t pol_color_list_add_entry(t_pol_ctx* ctx, const char* name, uint16_t color) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (name == nullptr) return POL_EINVAL;
  uint8_t created = 0;
  t_color_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return POL_ENOMEM;
  avl_index where = 0;
  if (list->by_color.find(&color, &where) == nullptr) {
    auto* entry = pol::alloc<t_color_entry>(pol::MEM_COLOR_ENTRY);
    if (entry == nullptr) {
      if (created != 0) node_free(ctx, list, true);
      return POL_ENOMEM;
    }
    entry->color = color;
    list->entries.push_back(entry);
    list->by_color.insert(entry, where);
    pol::directory_color(list->head, entry->color, true);
  }
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_color_list_del_entry(t_pol_ctx* ctx, const char* name, uint16_t color) {
  t_color_list* list = pol_color_list_find(ctx, name);
  t_color_entry* entry = list != nullptr ? list->by_color.find(&color) : nullptr;
  if (entry == nullptr) return POL_OK;
  entry_free(list, entry);
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_color_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  t_color_list* list = pol_color_list_find(ctx, name);
  if (list == nullptr) return POL_OK;
  free_entries(list);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_color_list* pol_color_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_clause_user* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_color_list* list = find_or_create(ctx, name, &created);
  if (list != nullptr) pol::user_add(ctx, &list->head, list->users, record);
  return list;
}

uint32_t pol_color_list_user_remove(t_pol_ctx* ctx, t_color_list* list, t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_color_list::users, record);
}

void pol_dump_color_list(t_color_list* list, t_cli_user_ctx* cli) {
  if (list == nullptr) return;
  maapi_cli_printf(cli, "\ncolor-list: %s (%p)", list->head.name, static_cast<void*>(list));
  for (const t_color_entry& entry : list->entries) {
    maapi_cli_printf(cli, "\n  color %s", kel_util_tloc_color_name(entry.color));
  }
  maapi_cli_printf(cli, "\nend \n");
  pol::dump_list_users(cli, list->users);
}

int pol_dump_color_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                            char** /*argv*/) {
  return pol::dump_lists(cli, "\n              COLOR LISTS           ", &t_pol_ctx::color_lists,
                         pol_dump_color_list);
}
