// SPDX-License-Identifier: Apache-2.0
// VPN lists: three kinds of user, a changed flag and a record in the XML cache.
#include "policy/pol_vpn_list.h"

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "lists/list_directory.h"
#include "policy/pol_xml_config.h"

namespace {

bool unused(const t_vpn_list& list) {
  return list.entries.empty() && list.match_users.empty() && list.action_users.empty() &&
         list.fwd_pol_users.empty();
}

void free_entries(t_vpn_list* list) {
  list->entries.clear([list](pol::RangeNode* node) {
    pol::directory_range(list->head, node->low, node->high, false);
    list->records.give(reinterpret_cast<t_pol_vpn_entry*>(node));
  });
  if (!list->entries.empty()) pol::crash("elements are left in a VPN list that was emptied");
}

void node_free(t_pol_ctx* ctx, t_vpn_list* list, bool remove_from_tree) {
  if (!unused(*list)) pol::crash("a VPN list that goes is in use");
  if (remove_from_tree) ctx->vpn_lists.remove(list);
  pol_xml_config_find_and_delete(POL_XML_VPN_LIST, list->head.name);
  pol::named_release(list, pol::MEM_VPN_LIST);
}

void free_if_unused(t_pol_ctx* ctx, pol::NamedHead* head) {
  auto* list = reinterpret_cast<t_vpn_list*>(head);
  if (unused(*list)) node_free(ctx, list, true);
}

void release(t_pol_ctx* ctx, t_vpn_list* list) {
  free_entries(list);
  node_free(ctx, list, false);
}

t_vpn_list* find_or_create(t_pol_ctx* ctx, const char* name, uint8_t* created) {
  t_vpn_list* list =
      pol::named_find_or_create(ctx->vpn_lists, name, pol::MEM_VPN_LIST, free_if_unused, created);
  if (*created != 0) {
    pol_xml_config_find_or_create(POL_XML_VPN_LIST, list->head.name);
    list->changed = 1;
  }
  return list;
}

void tell_all(t_pol_ctx* ctx, const t_vpn_list& list) {
  pol::mark_blocks(ctx, list.match_users);
  pol::mark_blocks(ctx, list.action_users);
  for (t_pol_fwd_vpn_entry& user : list.fwd_pol_users) {
    pol_block_users_add_to_chg_list(ctx, user.block);
  }
  pol_user_chg_list_notify_all(ctx);
}

t_vpn_list* user_add(t_pol_ctx* ctx, const char* name, pol::UserQueue t_vpn_list::*queue,
                     t_pol_clause_user* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_vpn_list* list = find_or_create(ctx, name, &created);
  if (list != nullptr) pol::user_add(ctx, &list->head, list->*queue, record);
  return list;
}

}  // namespace

uint32_t pol_vpn_list_main_init(t_pol_ctx* ctx) {
  return pol::named_init(ctx, &t_pol_ctx::vpn_lists);
}

uint32_t pol_vpn_list_main_deinit(t_pol_ctx* ctx) {
  return pol::named_deinit(ctx, &t_pol_ctx::vpn_lists, release);
}

uint32_t pol_vpn_list_add_entry(t_pol_ctx* ctx, const char* name, uint32_t low, uint32_t high) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (name == nullptr) return POL_EINVAL;
  uint8_t created = 0;
  t_vpn_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr) return POL_ENOMEM;
  pol::RangePlace place;
  const bool room = list->entries.find_place(low, high, &place);
  if (place.there != nullptr) return POL_OK;
  list->changed = 1;
  if (!room || !pol::range_add(list, low, high, place)) {
    if (created != 0) node_free(ctx, list, true);
    return POL_ENOMEM;
  }
  pol::directory_range(list->head, low, high, true);
  tell_all(ctx, *list);
  return POL_OK;
}

t_pol_vpn_entry* pol_vpn_list_find_entry(t_pol_ctx* ctx, const char* name, uint32_t low,
                                         uint32_t high) {
  t_vpn_list* list = pol::named_find(ctx, &t_pol_ctx::vpn_lists, name);
  if (list == nullptr) return nullptr;
  return reinterpret_cast<t_pol_vpn_entry*>(list->entries.find(low, high));
}

uint32_t pol_vpn_list_del_entry(t_pol_ctx* ctx, const char* name, uint32_t low, uint32_t high) {
  t_vpn_list* list = pol::named_find(ctx, &t_pol_ctx::vpn_lists, name);
  if (list == nullptr) return POL_OK;
  list->changed =
      1;  // on purpose before the look-up: a missed delete still has the text fetched again
  pol::RangeNode* range = list->entries.take(low, high);
  if (range == nullptr) return POL_OK;
  pol::directory_range(list->head, low, high, false);
  list->records.give(reinterpret_cast<t_pol_vpn_entry*>(range));
  tell_all(ctx, *list);
  return POL_OK;
}

uint32_t pol_vpn_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  t_vpn_list* list = pol::named_find(ctx, &t_pol_ctx::vpn_lists, name);
  if (list == nullptr) return POL_OK;
  free_entries(list);
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_vpn_list* pol_vpn_list_match_user_add(t_pol_ctx* ctx, const char* name,
                                        t_pol_clause_user* record) {
  return user_add(ctx, name, &t_vpn_list::match_users, record);
}

t_vpn_list* pol_vpn_list_action_user_add(t_pol_ctx* ctx, const char* name,
                                         t_pol_clause_user* record) {
  return user_add(ctx, name, &t_vpn_list::action_users, record);
}

t_vpn_list* pol_vpn_list_fwd_pol_user_add(t_pol_ctx* ctx, const char* name,
                                          t_pol_fwd_vpn_entry* record) {
  if (ctx == nullptr || name == nullptr || record == nullptr) return nullptr;
  uint8_t created = 0;
  t_vpn_list* list = find_or_create(ctx, name, &created);
  if (list == nullptr || record->vpn_list == list) return list;
  if (record->vpn_list != nullptr) pol_vpn_list_fwd_pol_user_remove(ctx, record->vpn_list, record);
  list->fwd_pol_users.push_back(record);
  record->vpn_list = list;
  return list;
}

uint32_t pol_vpn_list_match_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                        t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_vpn_list::match_users, record);
}

uint32_t pol_vpn_list_action_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                         t_pol_clause_user* record) {
  return pol::user_remove(ctx, list, &t_vpn_list::action_users, record);
}

uint32_t pol_vpn_list_fwd_pol_user_remove(t_pol_ctx* ctx, t_vpn_list* list,
                                          t_pol_fwd_vpn_entry* record) {
  if (list == nullptr || record == nullptr || record->vpn_list != list) return POL_EINVAL;
  if (ctx == nullptr) return POL_ENOCTX;
  list->fwd_pol_users.remove(record);
  record->vpn_list = nullptr;
  free_if_unused(ctx, &list->head);
  return POL_OK;
}

t_vpn_list* pol_vpn_list_first(t_pol_ctx* ctx) {
  return ctx != nullptr ? ctx->vpn_lists.first() : nullptr;
}

t_vpn_list* pol_vpn_list_next(t_pol_ctx* ctx, t_vpn_list* list) {
  return ctx != nullptr && list != nullptr ? ctx->vpn_lists.next(list) : nullptr;
}

// On purpose: action users are not shown.
void pol_dump_vpn_list(t_vpn_list* list, t_cli_user_ctx* cli) {
  if (list == nullptr) return;
  maapi_cli_printf(cli, "\nvpn-list: %s (0x%p, %u)", list->head.name, static_cast<void*>(list),
                   unsigned{list->changed});
  for (const pol::RangeNode& range : list->entries.in_order()) {
    maapi_cli_printf(cli, "\n    vpn-id: %lu-%lu", range.low, range.high);
  }
  maapi_cli_printf(cli, "\nend \n");
  pol::dump_list_users(cli, list->match_users);
  for (const t_pol_fwd_vpn_entry& user : list->fwd_pol_users) {
    maapi_cli_printf(cli, "\n  User: %s", user.block->name);
  }
}

int pol_dump_vpn_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                          char** /*argv*/) {
  return pol::dump_lists(cli, "\n              VPN LISTS            ", &t_pol_ctx::vpn_lists,
                         pol_dump_vpn_list);
}
