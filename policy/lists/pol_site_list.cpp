// SPDX-License-Identifier: Apache-2.0
// Site lists: no changed flag, no XML record; one outside user beside the policies.
#include "policy/pol_site_list.h"

#include "base/pol_crash.h"
#include "base/pol_name.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "lists/list_directory.h"
#include "policy/pol_util.h"

namespace {

bool unused(const t_site_list& list) {
  return list.entries.empty() && list.pol_users.empty() && list.list_user == nullptr;
}

void free_entries(t_site_list* list) {
  list->entries.clear([list](pol::RangeNode* node) {
    pol::directory_range(list->head, node->low, node->high, false);
    list->records.give(reinterpret_cast<t_site_entry*>(node));
  });
  if (!list->entries.empty()) pol::crash("elements are left in a site list that was emptied");
}

void free_if_unused(t_pol_ctx* ctx, pol::NamedHead* head) {
  auto* list = reinterpret_cast<t_site_list*>(head);
  if (unused(*list)) pol::named_remove(ctx->site_lists, list, pol::MEM_SITE_LIST);
}

void release(t_pol_ctx* /*ctx*/, t_site_list* list) {
  free_entries(list);
  if (!list->pol_users.empty()) pol::crash("a policy still uses a site list that goes");
  // On purpose: the record is the registrant's to forget and stays; only its way to the list is
  // cut.
  if (list->list_user != nullptr) list->list_user->list = nullptr;
  pol::named_release(list, pol::MEM_SITE_LIST);
}

t_site_list* find_or_create(t_pol_ctx* ctx, const char* name, uint8_t* created) {
  return pol::named_find_or_create(ctx->site_lists, name, pol::MEM_SITE_LIST, free_if_unused,
                                   created);
}

// The outside user is told first and may do anything to the list, even away with it; so the list is
// looked up again for the policies.
void tell_all(t_pol_ctx* ctx, t_site_list* list) {
  t_pol_list_user* user = list->list_user;
  if (user != nullptr && user->change != nullptr) {
    char name[POL_LIST_NAME_SIZE];
    pol::copy_name(name, list->head.name);
    user->change(user, user->arg);
    list = pol::named_find(ctx->site_lists, name);
  }
  if (list != nullptr) pol::mark_blocks(ctx, list->pol_users);
  pol_user_chg_list_notify_all(ctx);
}

}  // namespace

uint32_t pol_site_list_main_init(t_pol_ctx* ctx) {
  return pol::named_init(ctx, &t_pol_ctx::site_lists);
}

uint32_t pol_site_list_main_deinit(t_pol_ctx* ctx) {
  return pol::named_deinit(ctx, &t_pol_ctx::site_lists, release);
}

uint32_t pol_site_list_add_entry(t_pol_ctx* ctx, const char* name, uint32_t low, uint32_t high) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (name == nullptr) return POL_EINVAL;
  uint8_t created = 0;
  t_site_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return POL_ENOMEM;
  pol::RangePlace place;
  const bool room = list->entries.find_place(low, high, &place);
  if (place.there != nullptr) return POL_OK;
  if (!room || !pol::range_add(list, low, high, place)) {
    if (created != 0) {
      if (!unused(*list)) pol::crash("a site list that was not made after all is in use");
      pol::named_remove(ctx->site_lists, list, pol::MEM_SITE_LIST);
    }
    return POL_ENOMEM;
  }
  pol::directory_range(list->head, low, high, true);
  tell_all(ctx, list);
  return POL_OK;
}

t_site_entry* pol_site_list_find_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                       uint32_t high) {
  t_site_list* list = pol::named_find(ctx, &t_pol_ctx::site_lists, name);
  return list != nullptr ? reinterpret_cast<t_site_entry*>(list->entries.find(low, high)) : nullptr;
}

uint32_t pol_site_list_del_entry(t_pol_ctx* ctx, const char* name, uint32_t low, uint32_t high) {
  t_site_list* list = pol::named_find(ctx, &t_pol_ctx::site_lists, name);
  pol::RangeNode* range = list != nullptr ? list->entries.take(low, high) : nullptr;
  if (range == nullptr) return POL_OK;
  pol::directory_range(list->head, low, high, false);
  list->records.give(reinterpret_cast<t_site_entry*>(range));
  tell_all(ctx, list);
  return POL_OK;
}

uint32_t pol_site_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  t_site_list* list = pol::named_find(ctx, &t_pol_ctx::site_lists, name);
  if (list == nullptr) return POL_OK;
  free_entries(list);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_site_list* pol_site_list_pol_user_add(t_pol_ctx* ctx, const char* name,
                                        t_pol_clause_user* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_site_list* list = find_or_create(ctx, name, &created);
  if (list != nullptr) pol::user_add(ctx, &list->head, list->pol_users, record);
  return list;
}

uint32_t pol_site_list_pol_user_remove(t_pol_ctx* ctx, t_site_list* list,
                                       t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_site_list::pol_users, record);
}

t_pol_list_user* pol_site_list_user_add(t_pol_ctx* ctx, const char* name,
                                        t_pol_list_change_cb change, void* arg) {
  if (ctx == nullptr || name == nullptr) return nullptr;
  uint8_t created = 0;
  t_site_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return nullptr;
  if (list->list_user != nullptr) return list->list_user;
  auto* user = pol::alloc<t_pol_list_user>(pol::MEM_LIST_USER);
  if (user == nullptr) return nullptr;
  *user = {POL_LIST_SITE, change, list, arg};
  list->list_user = user;
  return user;
}

uint32_t pol_site_list_user_remove(t_pol_ctx* ctx, t_pol_list_user* user) {
  if (user == nullptr || user->list == nullptr) return POL_EINVAL;
  if (ctx == nullptr) return POL_ENOCTX;
  t_site_list* list = user->list;
  if (list->list_user != user) return POL_EINVAL;
  list->list_user = nullptr;
  pol_free(user, pol::MEM_LIST_USER);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

void pol_dump_site_list(t_site_list* list, t_cli_user_ctx* cli) {
  if (list == nullptr) return;
  maapi_cli_printf(cli, "\nsite-list: %s (0x%p)", list->head.name, static_cast<void*>(list));
  for (const pol::RangeNode& range : list->entries.in_order()) {
    maapi_cli_printf(cli, "\n  site-id %d-%d", static_cast<int>(range.low),
                     static_cast<int>(range.high));
  }
  maapi_cli_printf(cli, "\nend \n");
  const t_pol_list_user* user = list->list_user;
  if (user == nullptr) return;
  maapi_cli_printf(cli, "\n    User: %p, list: %s, list-type: %s, ctx: %p, chg_cb: %p\n",
                   static_cast<const void*>(user), list->head.name,
                   pol_util_list_type_str(user->list_type), user->arg,
                   reinterpret_cast<void*>(user->change));
}

int pol_dump_site_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                           char** /*argv*/) {
  return pol::dump_lists(cli, "\n              SITE LISTS           ", &t_pol_ctx::site_lists,
                         pol_dump_site_list);
}
