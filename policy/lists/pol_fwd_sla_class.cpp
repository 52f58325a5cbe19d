// SPDX-License-Identifier: Apache-2.0
// SLA classes.
#include "policy/pol_fwd_sla_class.h"

#include "lists/pol_fwd_object_list.h"

namespace {

struct SlaClassFacts {
  using Node = t_fwd_sla_class;
  static constexpr auto kTree = &t_pol_ctx::sla_classes;
  static constexpr pol::MemType kMemory = pol::MEM_SLA_CLASS;
  static constexpr int32_t kXmlType = POL_XML_SLA_CLASS;
  static constexpr const char* kTitle = "\n     SLA CLASSES         ";
  static constexpr const char* kWord = "sla-class";
  static constexpr auto& kRoles = pol::kSlaClassRoles;
};
using SlaClasses = pol::FwdObjectList<SlaClassFacts>;

}  // namespace

uint32_t pol_fwd_sla_class_main_init(t_pol_ctx* ctx) { return SlaClasses::init(ctx); }

uint32_t pol_fwd_sla_class_main_deinit(t_pol_ctx* ctx) { return SlaClasses::deinit(ctx); }

uint32_t pol_fwd_sla_class_entry_change(t_pol_ctx* ctx, const char* name) {
  return SlaClasses::entry_change(ctx, name);
}

uint32_t pol_fwd_sla_class_cfg_del(t_pol_ctx* ctx, const char* name) {
  return SlaClasses::cfg_del(ctx, name);
}

t_fwd_sla_class* pol_fwd_sla_class_user_add(t_pol_ctx* ctx, const char* name,
                                            t_pol_fwd_user* user) {
  return SlaClasses::user_add(ctx, name, 0, user);
}

uint32_t pol_fwd_sla_class_user_remove(t_pol_ctx* ctx, t_fwd_sla_class* node,
                                       t_pol_fwd_user* user) {
  return SlaClasses::user_remove(ctx, node, 0, user);
}

t_fwd_sla_class* pol_fwd_sla_class_first(t_pol_ctx* ctx) { return SlaClasses::first(ctx); }

t_fwd_sla_class* pol_fwd_sla_class_next(t_pol_ctx* ctx, t_fwd_sla_class* node) {
  return SlaClasses::next(ctx, node);
}

void pol_dump_fwd_sla_class(t_fwd_sla_class* node, t_cli_user_ctx* cli) {
  SlaClasses::dump(node, cli);
}

int pol_dump_fwd_sla_class_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                               char** /*argv*/) {
  return SlaClasses::dump_all(cli);
}
