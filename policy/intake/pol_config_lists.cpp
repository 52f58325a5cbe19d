// SPDX-License-Identifier: Apache-2.0
// Readers of the named lists with elements.
#include <cstdio>

#include "base/pol_log.h"
#include "intake/pol_config_internal.h"
#include "kel/ipaddr.h"
#include "policy/pol_color_list.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_util.h"
#include "policy/pol_vpn_list.h"

namespace {

constexpr uint32_t kRejected = 0xffffffff;

// The bounds that the leaves of a prefix member give, and the operator that follows from them.
struct PrefixBounds {
  uint8_t min = 0;
  uint8_t max = 0;
  uint8_t both = 0;
  bool min_given = false;
  bool max_given = false;
  bool both_given = false;
  bool both_removed = false;

  void take(const pol::Leaf& leaf) {
    switch (leaf.tag()) {
      case POL_TAG_LENGTH:
        both_removed |= leaf.removed();
        if (leaf.removed()) return;
        both = leaf.u8();
        both_given = true;
        return;
      case POL_TAG_GE:
        min = leaf.removed() ? 0 : leaf.u8();
        min_given |= !leaf.removed();
        return;
      case POL_TAG_LE:
        max = leaf.removed() ? 0 : leaf.u8();
        max_given |= !leaf.removed();
        return;
      default:
        return;
    }
  }

  void settle(t_pol_pfx_record* record) {
    if (both_removed) {
      if (!min_given) min = 0;
      if (!max_given) max = 0;
    } else if (both_given) {
      min = both;
      max = both;
    }
    record->min = min;
    record->max = max;
    if (min == 0 && max == 0) {
      record->op = POL_PFX_EQ;
    } else if (max != 0) {
      record->op = min != 0 ? POL_PFX_RANGE : POL_PFX_LE;
    } else {
      record->op = POL_PFX_GE;
    }
  }
};

}  // namespace

uint32_t pol_config_policy_site_list_name(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                          uint8_t /*level*/, const pol_cfg_value* keys,
                                          uint32_t num, const pol_cfg_tag_value* /*values*/) {
  if (op != POL_CFG_DELETED) return 0;
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Site list Config - Name:%s, Oper:%u, num:%u\n", name, 2u, num & 0xffff);
  pol_site_list_cfg_del(ctx, name);
  return 0;
}

uint32_t pol_config_policy_vpn_list_name(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                         uint8_t /*level*/, const pol_cfg_value* keys, uint32_t num,
                                         const pol_cfg_tag_value* /*values*/) {
  if (op != POL_CFG_DELETED) return 0;
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("VPN list Config - Name:%s, Oper:%u, num:%u\n", name, 2u, num & 0xffff);
  pol_vpn_list_cfg_del(ctx, name);
  return 0;
}

uint32_t pol_config_policy_tloc_list_name(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                          uint8_t /*level*/, const pol_cfg_value* keys,
                                          uint32_t num, const pol_cfg_tag_value* /*values*/) {
  if (op != POL_CFG_DELETED) return 0;
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Tloc list Config - Name:%s, Oper:%u, num:%u\n", name, 2u, num & 0xffff);
  pol_tloc_list_cfg_del(ctx, name);
  return 0;
}

uint32_t pol_config_policy_color_list_name(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                           uint8_t /*level*/, const pol_cfg_value* keys,
                                           uint32_t num, const pol_cfg_tag_value* /*values*/) {
  if (op != POL_CFG_DELETED) return 0;
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Color list Config - Name:%s, Oper:%u, num:%u\n", name, 2u, num & 0xffff);
  pol_color_list_cfg_del(ctx, name);
  return 0;
}

uint32_t pol_config_policy_prefix_list_name(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                            uint8_t /*level*/, const pol_cfg_value* keys,
                                            uint32_t num, const pol_cfg_tag_value* /*values*/) {
  if (op != POL_CFG_DELETED) return 0;
  const char* name = pol::Keys(keys).text(0);
  POL_LOG("Prefix list Config - Name:%s, Oper:%u, num:%u\n", name, 2u, num & 0xffff);
  pol_pfx_list_cfg_del(ctx, name);
  return 0;
}

// On purpose: the bounds may stand upside down and text may follow the numbers.
uint32_t pol_config_policy_site_list(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t /*level*/,
                                     const pol_cfg_value* keys, uint32_t num,
                                     const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  const char* id = pol::Keys(keys).text(1);
  POL_LOG("Site list config - Name:%s, id:%s, Oper:%u, num:%u\n", name, id, op, num & 0xffff);
  uint32_t low = 0;
  uint32_t high = 0;
  const int numbers = sscanf(id, "%u-%u", &low, &high);
  if (numbers < 1) {
    POL_LOG_ALWAYS("Invalid site list range %s in list %s\n", id, name);
    return kRejected;
  }
  if (numbers == 1) high = low;
  if (op == POL_CFG_CREATED) pol_site_list_add_entry(ctx, name, low, high);
  if (op == POL_CFG_DELETED) pol_site_list_del_entry(ctx, name, low, high);
  return 0;
}

uint32_t pol_config_policy_vpn_list(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t /*level*/,
                                    const pol_cfg_value* keys, uint32_t num,
                                    const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  const char* id = pol::Keys(keys).text(1);
  POL_LOG("VPN list config - Name:%s, id:%s, Oper:%u, num:%u\n", name, id, op, num & 0xffff);
  uint64_t low = 0;
  uint64_t high = 0;
  const int numbers = sscanf(id, "%lu-%lu", &low, &high);
  if (numbers < 1) {
    POL_LOG_ALWAYS("Invalid vpn list range %s in list %s\n", id, name);
    return kRejected;
  }
  if (numbers == 1) high = low;
  const auto first = static_cast<uint32_t>(low);
  const auto last = static_cast<uint32_t>(high);
  if (op == POL_CFG_CREATED) pol_vpn_list_add_entry(ctx, name, first, last);
  if (op == POL_CFG_DELETED) pol_vpn_list_del_entry(ctx, name, first, last);
  return 0;
}

uint32_t pol_config_policy_tloc_list(void* /*host*/, t_pol_ctx* ctx, uint32_t op, uint8_t /*level*/,
                                     const pol_cfg_value* keys, uint32_t num,
                                     const pol_cfg_tag_value* values) {
  const pol::Keys key(keys);
  const pol::Leaves leaves(values, num);
  const char* name = key.text(0);
  const t_ipaddr address = key.address(1);
  const auto color = static_cast<uint8_t>(key.enumeration(2));
  const auto encap = static_cast<uint8_t>(key.enumeration(3));
  const t_tloc_id tloc = pol::tloc_of(address, color, encap);
  POL_LOG("Tloc list config - Name:%s, Oper:%u, num:%u\n", name, op, num & 0xffff);
  if (op == POL_CFG_DELETED) {
    pol_tloc_list_del_entry(ctx, name, &tloc);
    return 0;
  }
  uint32_t preference = 0;
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    const pol::Leaf leaf = leaves[i];
    POL_LOG("Prefix config - XML = %u, type: %d \n", leaf.tag(), static_cast<int>(leaf.type()));
    if (leaf.tag() == POL_TAG_PREFERENCE) preference = leaf.removed() ? 0 : leaf.u32();
  }
  pol_tloc_list_add_entry(ctx, name, &tloc, preference);
  return 0;
}

uint32_t pol_config_policy_color_list(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                      uint8_t /*level*/, const pol_cfg_value* keys, uint32_t num,
                                      const pol_cfg_tag_value* /*values*/) {
  const char* name = pol::Keys(keys).text(0);
  const auto color = static_cast<uint16_t>(pol::Keys(keys).enumeration(1));
  POL_LOG("Color list config - Name:%s, Oper:%u, num:%u\n", name, op, num & 0xffff);
  if (op == POL_CFG_DELETED) {
    pol_color_list_del_entry(ctx, name, color);
  } else {
    pol_color_list_add_entry(ctx, name, color);
  }
  return 0;
}

uint32_t pol_config_policy_prefix_list(void* /*host*/, t_pol_ctx* ctx, uint32_t op,
                                       uint8_t /*level*/, const pol_cfg_value* keys, uint32_t num,
                                       const pol_cfg_tag_value* values) {
  const pol::Keys key(keys);
  const pol::Leaves leaves(values, num);
  const char* name = key.text(0);
  t_pol_pfx_record record = {};
  record.prefix = key.ipv4_prefix(1);
  record.op = POL_PFX_EQ;
  char address[64];
  char text[128];
  snprintf(text, sizeof text, "%s/%u", ipaddr_print(&record.prefix.addr, address, sizeof address),
           unsigned{record.prefix.len});
  POL_LOG("Prefix config - Name:%s, pfx:%s, Oper:%u, num:%u\n", name, text, op, num & 0xffff);
  if (op == POL_CFG_DELETED) {
    pol_pfx_list_del_entry(ctx, name, &record);
    return 0;
  }
  PrefixBounds bounds;
  for (uint32_t i = 0; i < leaves.count(); ++i) {
    POL_LOG("Prefix config - XML = %u, type: %d \n", leaves[i].tag(),
            static_cast<int>(leaves[i].type()));
    bounds.take(leaves[i]);
  }
  bounds.settle(&record);
  pol_pfx_list_entry_add(ctx, name, &record);
  return 0;
}

void pol_config_update_tloc_list(void* arg, t_pol_ctx* ctx) {
  pol_tloc_list_update_fwd_pol_label(arg, ctx);
}

uint32_t pol_yang_enum_to_filter_mask(uint32_t enum_val) {
  assert(enum_val < 32);
  return enum_val == 0 ? 0 : uint32_t{1} << enum_val;
}
