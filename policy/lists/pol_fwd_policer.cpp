// SPDX-License-Identifier: Apache-2.0
// Policers.
#include "policy/pol_fwd_policer.h"

#include "lists/pol_fwd_object_list.h"

namespace {

struct PolicerFacts {
  using Node = t_fwd_policer;
  static constexpr auto kTree = &t_pol_ctx::policers;
  static constexpr pol::MemType kMemory = pol::MEM_POLICER;
  static constexpr int32_t kXmlType = POL_XML_POLICER;
  static constexpr const char* kTitle = "\n          FORWARDING POLICERS      ";
  static constexpr const char* kWord = "fwd-policer";
  static constexpr auto& kRoles = pol::kPolicerRoles;
};
using Policers = pol::FwdObjectList<PolicerFacts>;

}  // namespace

uint32_t pol_fwd_policer_main_init(t_pol_ctx* ctx) { return Policers::init(ctx); }

uint32_t pol_fwd_policer_main_deinit(t_pol_ctx* ctx) { return Policers::deinit(ctx); }

uint32_t pol_fwd_policer_entry_change(t_pol_ctx* ctx, const char* name) {
  return Policers::entry_change(ctx, name);
}

uint32_t pol_fwd_policer_cfg_del(t_pol_ctx* ctx, const char* name) {
  return Policers::cfg_del(ctx, name);
}

t_fwd_policer* pol_fwd_policer_user_add(t_pol_ctx* ctx, const char* name, t_pol_fwd_user* user) {
  return Policers::user_add(ctx, name, 0, user);
}

uint32_t pol_fwd_policer_user_remove(t_pol_ctx* ctx, t_fwd_policer* node, t_pol_fwd_user* user) {
  return Policers::user_remove(ctx, node, 0, user);
}

t_fwd_policer* pol_fwd_policer_first(t_pol_ctx* ctx) { return Policers::first(ctx); }

t_fwd_policer* pol_fwd_policer_next(t_pol_ctx* ctx, t_fwd_policer* node) {
  return Policers::next(ctx, node);
}

void pol_dump_fwd_policer(t_fwd_policer* node, t_cli_user_ctx* cli) { Policers::dump(node, cli); }

int pol_dump_fwd_policer_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                             char** /*argv*/) {
  return Policers::dump_all(cli);
}
