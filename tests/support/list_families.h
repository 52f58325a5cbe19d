// SPDX-License-Identifier: Apache-2.0
//
// list_families.h - the objects that sequences of forwarding policies name, under one set of names,
// for a model of what they share. Any number is a change.
#pragma once

#include "forward/pol_fwd_ref.h"
#include "support/policy_fixture.h"

template <auto kTree, auto kChange, auto kCfgDel, uint32_t kList, uint32_t kXml,
          const pol::FwdRef*... kRoleRefs>
struct ObjectFamily {
  static constexpr uint32_t kListMem = kList, kXmlType = kXml;
  static constexpr auto kObjects = kTree;
  static constexpr const pol::FwdRef* kRoles[] = {kRoleRefs...};
  static constexpr auto* cfg_del = kCfgDel;

  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t /*n*/) {
    return kChange(ctx, list);
  }
};

using AppFamily =
    ObjectFamily<&t_pol_ctx::app_lists, pol_app_list_entry_change, pol_app_list_cfg_del, 20,
                 POL_XML_APP_LIST, &pol::kFwdAppList, &pol::kFwdDnsAppList, &pol::kFwdSaasAppList>;
using FwdPfxFamily =
    ObjectFamily<&t_pol_ctx::fwd_pfx_lists, pol_fwd_pfx_list_entry_change, pol_fwd_pfx_list_cfg_del,
                 17, POL_XML_DATA_PREFIX_LIST, &pol::kFwdSrcPfx, &pol::kFwdDstPfx>;
using FwdPfx6Family = ObjectFamily<&t_pol_ctx::fwd_pfx6_lists, pol_fwd_pfx6_list_entry_change,
                                   pol_fwd_pfx6_list_cfg_del, 17, POL_XML_DATA_IPV6_PREFIX_LIST,
                                   &pol::kFwdSrcPfx6, &pol::kFwdDstPfx6>;
using SlaClassFamily =
    ObjectFamily<&t_pol_ctx::sla_classes, pol_fwd_sla_class_entry_change, pol_fwd_sla_class_cfg_del,
                 11, POL_XML_SLA_CLASS, &pol::kFwdSlaClass>;
using PolicerFamily = ObjectFamily<&t_pol_ctx::policers, pol_fwd_policer_entry_change,
                                   pol_fwd_policer_cfg_del, 12, POL_XML_POLICER, &pol::kFwdPolicer>;
using AppIdFamily = ObjectFamily<&t_pol_ctx::app_ids, pol_fwd_app_id_entry_change,
                                 pol_fwd_app_id_cfg_del, 32, 0, &pol::kFwdAppId>;
