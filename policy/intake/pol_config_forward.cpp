// SPDX-License-Identifier: Apache-2.0
// Readers of the named objects that data policies use, and of cflowd templates.
//
// What an object holds is fetched from the agent as text, so a reader only says which object was
// made, changed or deleted; a change of a member is a change of its object.
#include "base/pol_log.h"
#include "core/pol_context_internal.h"
#include "intake/pol_config_internal.h"
#include "policy/pol_app_list.h"
#include "policy/pol_fwd_app_id.h"
#include "policy/pol_fwd_pfx_list.h"
#include "policy/pol_fwd_policer.h"
#include "policy/pol_fwd_sla_class.h"

namespace {

constexpr uint8_t kLevelObject = 1;
constexpr uint8_t kLevelMember = 2;

constexpr uint32_t kNotMade = 1;

using Operation = uint32_t (*)(t_pol_ctx*, const char* name);

// False when the object is new and cannot be made. A report of a change that carries no leaf says
// nothing about the object itself.
bool apply(t_pol_ctx* ctx, uint32_t op, uint32_t num, const char* name, Operation change,
           Operation del) {
  switch (op) {
    case POL_CFG_CREATED:
      return change(ctx, name) == POL_OK;
    case POL_CFG_DELETED:
      del(ctx, name);
      return true;
    case POL_CFG_MODIFIED:
    case POL_CFG_VALUE_SET:
      if ((num & 0xffff) != 0) change(ctx, name);
      return true;
    default:
      return true;
  }
}

void template_changed(t_pol_ctx* ctx, t_pol_block* block) {
  block->fetch_xml = 1;
  pol_block_users_add_to_chg_list(ctx, block);
}

}  // namespace

uint32_t pol_config_policy_sla_class_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                          uint8_t level, const pol_cfg_value* keys, uint32_t num,
                                          const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("SLA Class Config - Name:%s, Oper:%u, num:%u\n", name, op, num & 0xffff);
  if (apply(ctx, op, num, name, pol_fwd_sla_class_entry_change, pol_fwd_sla_class_cfg_del)) {
    return 0;
  }
  POL_LOG("Failed to create fwd sla class: %s\n", name);
  pol::crash("a reported object that cannot be made");
}

uint32_t pol_config_policy_app_id_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                       const pol_cfg_value* keys, uint32_t num,
                                       const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("APP ID Config - Name:%s, Oper:%u, num:%u\n", name, op, num & 0xffff);
  if (apply(ctx, op, num, name, pol_fwd_app_id_entry_change, pol_fwd_app_id_cfg_del)) return 0;
  POL_LOG("Failed to create fwd app id: %s\n", name);
  pol::crash("a reported object that cannot be made");
}

uint32_t pol_config_fwd_pfx_list_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                      const pol_cfg_value* keys, uint32_t num,
                                      const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd pfx list: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  if (apply(ctx, op, num, name, pol_fwd_pfx_list_entry_change, pol_fwd_pfx_list_cfg_del)) return 0;
  POL_LOG("Failed to create fwd pfx-list - pfx: %s\n", name);
  pol::crash("a reported object that cannot be made");
}

uint32_t pol_config_fwd_pfx6_list_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                       const pol_cfg_value* keys, uint32_t num,
                                       const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd pfx6 list: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  if (apply(ctx, op, num, name, pol_fwd_pfx6_list_entry_change, pol_fwd_pfx6_list_cfg_del)) {
    return 0;
  }
  POL_LOG("Failed to create fwd pfx6-list - pfx: %s\n", name);
  pol::crash("a reported object that cannot be made");
}

// A failure names the SLA class: kept on purpose.
uint32_t pol_config_fwd_policer_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                     const pol_cfg_value* keys, uint32_t num,
                                     const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("policer Config - Name:%s, Oper:%u, num:%u\n", name, op, num & 0xffff);
  if (apply(ctx, op, num, name, pol_fwd_policer_entry_change, pol_fwd_policer_cfg_del)) return 0;
  POL_LOG("Failed to create fwd sla class: %s\n", name);
  pol::crash("a reported object that cannot be made");
}

// On purpose: its trace is the prefix list's, and a failure, logged always, does not end the
// process.
uint32_t pol_config_app_list_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                  const pol_cfg_value* keys, uint32_t num,
                                  const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelObject);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd pfx list: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  if (apply(ctx, op, num, name, pol_app_list_entry_change, pol_app_list_cfg_del)) return 0;
  POL_LOG_ALWAYS("Failed to create fwd app-list: %s\n", name);
  return kNotMade;
}

uint32_t pol_config_fwd_pfx_list_ip_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                         const pol_cfg_value* keys, uint32_t num,
                                         const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelMember);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd pfx list: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  pol_fwd_pfx_list_entry_change(ctx, name);
  return 0;
}

uint32_t pol_config_fwd_pfx6_list_ip_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                          uint8_t level, const pol_cfg_value* keys, uint32_t num,
                                          const pol_cfg_tag_value* /*values*/) {
  pol::check_level(level, kLevelMember);
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Fwd pfx6 list: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op), num & 0xffff);
  pol_fwd_pfx6_list_entry_change(ctx, name);
  return 0;
}

uint32_t pol_config_app_list_app_read(void* /*host*/, t_pol_ctx* ctx, uint32_t /*op*/,
                                      uint8_t /*level*/, const pol_cfg_value* keys,
                                      uint32_t /*num*/, const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("pol_config_app_list_app_read for %s\n", name);
  pol_app_list_entry_change(ctx, name);
  return 0;
}

uint32_t pol_config_app_list_app_family_read(void* /*host*/, t_pol_ctx* ctx, uint32_t /*op*/,
                                             uint8_t /*level*/, const pol_cfg_value* keys,
                                             uint32_t /*num*/,
                                             const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("pol_config_app_list_app_family_read for %s\n", name);
  pol_app_list_entry_change(ctx, name);
  return 0;
}

uint32_t pol_config_cflowd_template_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                         uint8_t /*level*/, const pol_cfg_value* keys, uint32_t num,
                                         const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Cflowd template: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op),
          num & 0xffff);
  uint8_t changed = 0;
  if (op == POL_CFG_DELETED) {
    // On purpose nobody is notified: the users stay queued for the next batch.
    pol_block_find_and_delete(ctx, name, POL_KIND_CFLOWD, &changed);
    return 0;
  }
  if ((op == POL_CFG_MODIFIED || op == POL_CFG_VALUE_SET) && (num & 0xffff) == 0) return 0;
  t_pol_block* block = pol_block_find_or_create(ctx, name, POL_KIND_CFLOWD, &changed);
  if (block == nullptr) {
    POL_LOG("Failed to create cflowd template: %s\n", name);
    pol::crash("a reported object that cannot be made");
  }
  template_changed(ctx, block);
  pol_user_chg_list_notify_all(ctx);
  return 0;
}

uint32_t pol_config_cflowd_collector_read(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                          uint8_t /*level*/, const pol_cfg_value* keys,
                                          uint32_t num, const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Cflowd collector: %s, oper:%d, num_values:%u\n", name, static_cast<int>(op),
          num & 0xffff);
  t_pol_block* block = pol_block_find(ctx, name, POL_KIND_CFLOWD, nullptr);
  if (block == nullptr) {
    POL_LOG("Failed to find cflowd template: %s\n", name);
    pol::crash("a collector of a template that is not there");
  }
  template_changed(ctx, block);
  pol_user_chg_list_notify_all(ctx);
  return 0;
}
