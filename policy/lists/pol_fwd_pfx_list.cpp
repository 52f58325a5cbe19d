// SPDX-License-Identifier: Apache-2.0
// The prefix lists of data policies: two families, by address family, with two roles of user each.
#include "policy/pol_fwd_pfx_list.h"

#include "lists/pol_fwd_object_list.h"

namespace {

struct PfxFacts {
  using Node = t_fwd_pfx_list;
  static constexpr auto kTree = &t_pol_ctx::fwd_pfx_lists;
  static constexpr pol::MemType kMemory = pol::MEM_FWD_PFX_LIST;
  static constexpr int32_t kXmlType = POL_XML_DATA_PREFIX_LIST;
  static constexpr const char* kTitle = "\n        FORWARDING PREFIX LISTS    ";
  static constexpr const char* kWord = "fwd-prefix-list";
  static constexpr auto& kRoles = pol::kFwdPfxRoles;
};
using PfxLists = pol::FwdObjectList<PfxFacts>;

struct Pfx6Facts {
  using Node = t_fwd_pfx_list;
  static constexpr auto kTree = &t_pol_ctx::fwd_pfx6_lists;
  static constexpr pol::MemType kMemory = pol::MEM_FWD_PFX_LIST;
  static constexpr int32_t kXmlType = POL_XML_DATA_IPV6_PREFIX_LIST;
  static constexpr const char* kTitle = "\n  FORWARDING PREFIX6 LISTS    ";
  static constexpr const char* kWord = "fwd-prefix6-list";
  static constexpr auto& kRoles = pol::kFwdPfx6Roles;
};
using Pfx6Lists = pol::FwdObjectList<Pfx6Facts>;

size_t role_of(uint32_t kind) { return kind == 1 ? 0 : 1; }

}  // namespace

uint32_t pol_fwd_pfx_list_main_init(t_pol_ctx* ctx) { return PfxLists::init(ctx); }

uint32_t pol_fwd_pfx_list_main_deinit(t_pol_ctx* ctx) { return PfxLists::deinit(ctx); }

uint32_t pol_fwd_pfx_list_entry_change(t_pol_ctx* ctx, const char* name) {
  return PfxLists::entry_change(ctx, name);
}

uint32_t pol_fwd_pfx_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  return PfxLists::cfg_del(ctx, name);
}

t_fwd_pfx_list* pol_fwd_pfx_list_user_add(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                          t_pol_fwd_user* user) {
  return PfxLists::user_add(ctx, name, role_of(kind), user);
}

uint32_t pol_fwd_pfx_list_user_remove(t_pol_ctx* ctx, t_fwd_pfx_list* node, uint32_t kind,
                                      t_pol_fwd_user* user) {
  return PfxLists::user_remove(ctx, node, role_of(kind), user);
}

t_fwd_pfx_list* pol_fwd_pfx_list_first(t_pol_ctx* ctx) { return PfxLists::first(ctx); }

t_fwd_pfx_list* pol_fwd_pfx_list_next(t_pol_ctx* ctx, t_fwd_pfx_list* node) {
  return PfxLists::next(ctx, node);
}

void pol_dump_fwd_pfx_list(t_fwd_pfx_list* node, t_cli_user_ctx* cli) { PfxLists::dump(node, cli); }

int pol_dump_fwd_pfx_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                              char** /*argv*/) {
  return PfxLists::dump_all(cli);
}

uint32_t pol_fwd_pfx6_list_main_init(t_pol_ctx* ctx) { return Pfx6Lists::init(ctx); }

uint32_t pol_fwd_pfx6_list_main_deinit(t_pol_ctx* ctx) { return Pfx6Lists::deinit(ctx); }

uint32_t pol_fwd_pfx6_list_entry_change(t_pol_ctx* ctx, const char* name) {
  return Pfx6Lists::entry_change(ctx, name);
}

uint32_t pol_fwd_pfx6_list_cfg_del(t_pol_ctx* ctx, const char* name) {
  return Pfx6Lists::cfg_del(ctx, name);
}

t_fwd_pfx_list* pol_fwd_pfx6_list_user_add(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                           t_pol_fwd_user* user) {
  return Pfx6Lists::user_add(ctx, name, role_of(kind), user);
}

uint32_t pol_fwd_pfx6_list_user_remove(t_pol_ctx* ctx, t_fwd_pfx_list* node, uint32_t kind,
                                       t_pol_fwd_user* user) {
  return Pfx6Lists::user_remove(ctx, node, role_of(kind), user);
}

t_fwd_pfx_list* pol_fwd_pfx6_list_first(t_pol_ctx* ctx) { return Pfx6Lists::first(ctx); }

t_fwd_pfx_list* pol_fwd_pfx6_list_next(t_pol_ctx* ctx, t_fwd_pfx_list* node) {
  return Pfx6Lists::next(ctx, node);
}

void pol_dump_fwd_pfx6_list(t_fwd_pfx_list* node, t_cli_user_ctx* cli) {
  Pfx6Lists::dump(node, cli);
}

int pol_dump_fwd_pfx6_list_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                               char** /*argv*/) {
  return Pfx6Lists::dump_all(cli);
}
