// SPDX-License-Identifier: Apache-2.0
// Application ids: no text at the agent, so nothing to fetch.
#include "policy/pol_fwd_app_id.h"

#include "lists/pol_fwd_object_list.h"

namespace {

struct AppIdFacts {
  using Node = t_fwd_app_id;
  static constexpr auto kTree = &t_pol_ctx::app_ids;
  static constexpr pol::MemType kMemory = pol::MEM_APP_ID;
  static constexpr int32_t kXmlType = 0;
  static constexpr const char* kTitle = "\n     FORWARDING APP IDS         ";
  static constexpr const char* kWord = "app-id";
  static constexpr auto& kRoles = pol::kAppIdRoles;
};
using AppIds = pol::FwdObjectList<AppIdFacts>;

}  // namespace

uint32_t pol_fwd_app_id_main_init(t_pol_ctx* ctx) { return AppIds::init(ctx); }

uint32_t pol_fwd_app_id_main_deinit(t_pol_ctx* ctx) { return AppIds::deinit(ctx); }

uint32_t pol_fwd_app_id_entry_change(t_pol_ctx* ctx, const char* name) {
  return AppIds::entry_change(ctx, name);
}

uint32_t pol_fwd_app_id_cfg_del(t_pol_ctx* ctx, const char* name) {
  return AppIds::cfg_del(ctx, name);
}

t_fwd_app_id* pol_fwd_app_id_user_add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  return AppIds::user_add(ctx, name, 0, user);
}

uint32_t pol_fwd_app_id_user_remove(t_pol_ctx* ctx, t_fwd_app_id* node, t_pol_fwd_user* user) {
  return AppIds::user_remove(ctx, node, 0, user);
}

void pol_dump_fwd_app_id(t_fwd_app_id* node, t_cli_user_ctx* cli) { AppIds::dump(node, cli); }

int pol_dump_fwd_app_id_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                            char** /*argv*/) {
  return AppIds::dump_all(cli);
}
