// SPDX-License-Identifier: Apache-2.0
// Application lists: three roles of user.
#include "policy/pol_app_list.h"

#include "lists/pol_fwd_object_list.h"

namespace {

struct AppFacts {
  using Node = t_app_list;
  static constexpr auto kTree = &t_pol_ctx::app_lists;
  static constexpr pol::MemType kMemory = pol::MEM_APP_LIST;
  static constexpr int32_t kXmlType = POL_XML_APP_LIST;
  static constexpr const char* kTitle = "\n              APP LISTS    ";
  static constexpr const char* kWord = "app-list";
  static constexpr auto& kRoles = pol::kAppListRoles;
};
using AppLists = pol::FwdObjectList<AppFacts>;

// For the roles that sequences leave behind (pol_fwd_block.h).
uint32_t remove_and_release(t_pol_ctx* ctx, t_app_list* node, size_t role, t_pol_fwd_user* user) {
  uint32_t status = AppLists::user_remove(ctx, node, role, user);
  if (status == POL_OK) pol::fwd_leftover_release(user);
  return status;
}

}  // namespace

uint32_t pol_app_list_main_init(t_pol_ctx* ctx) { return AppLists::init(ctx); }

uint32_t pol_app_list_main_deinit(t_pol_ctx* ctx) { return AppLists::deinit(ctx); }

uint32_t pol_app_list_entry_change(t_pol_ctx* ctx, const char* name) {
  return AppLists::entry_change(ctx, name);
}

uint32_t pol_app_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  return AppLists::cfg_del(ctx, name);
}

t_app_list* pol_app_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  return AppLists::user_add(ctx, name, 0, user);
}

uint32_t pol_app_list_user_remove(t_pol_ctx* ctx, t_app_list* node, t_pol_fwd_user* user) {
  return AppLists::user_remove(ctx, node, 0, user);
}

t_app_list* pol_dns_app_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  return AppLists::user_add(ctx, name, 1, user);
}

uint32_t pol_dns_app_list_user_remove(t_pol_ctx* ctx, t_app_list* node, t_pol_fwd_user* user) {
  return remove_and_release(ctx, node, 1, user);
}

t_app_list* pol_saas_app_list_user_add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  return AppLists::user_add(ctx, name, 2, user);
}

uint32_t pol_saas_app_list_user_remove(t_pol_ctx* ctx, t_app_list* node, t_pol_fwd_user* user) {
  return remove_and_release(ctx, node, 2, user);
}

t_app_list* pol_app_list_first(t_pol_ctx* ctx) { return AppLists::first(ctx); }

t_app_list* pol_app_list_next(t_pol_ctx* ctx, t_app_list* node) {
  return AppLists::next(ctx, node);
}

void pol_dump_app_list(t_app_list* node, t_cli_user_ctx* cli) { AppLists::dump(node, cli); }

int pol_dump_app_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                          char** /*argv*/) {
  return AppLists::dump_all(cli);
}
