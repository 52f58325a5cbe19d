// SPDX-License-Identifier: Apache-2.0
//
// list_families.h - the named lists under one set of names, for tests of what they share.
//
// Lists with elements: an element is chosen by a small number; `clause` is a match clause that uses
// the list. Objects without: any number is a change; `clause` is a role of a forwarding sequence.
#pragma once

#include "forward/pol_fwd_ref.h"
#include "support/policy_fixture.h"

inline t_pol_pfx_record pfx_record(uint32_t number, uint32_t op = POL_PFX_EQ) {
  t_pol_pfx_record record = {op, {{KEL_AF_INET, {}}, 16}, 0, 0};
  record.prefix.addr.addr.v4 = number << 16;
  return record;
}

inline t_tloc_id numbered_tloc(uint32_t number) { return {KEL_AF_INET, {number}, 0, 0}; }

template <auto kTree, auto kUser, auto kClause, auto kDrop, auto kCfgDel, uint32_t kFlag,
          uint32_t kList, uint32_t kElement>
struct ListFamily {
  static auto* find(t_pol_ctx* ctx, const char* list) { return pol::named_find(ctx->*kTree, list); }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.*kUser; }
  static bool in_force(const t_pol_entry& e) { return (e.match_flags & kFlag) != 0; }
  static constexpr uint32_t kKind = POL_KIND_ROUTE, kListMem = kList, kEntryMem = kElement;
  static constexpr bool kRepeatNotifies = true;
  static constexpr auto* clause = kClause;
  static constexpr auto* drop = kDrop;
  static constexpr auto* cfg_del = kCfgDel;
};

// One number is a range of itself.
template <auto kChange>
uint32_t change_range(t_pol_ctx* ctx, const char* list, uint32_t n) {
  return kChange(ctx, list, n, n);
}

struct SiteFamily : ListFamily<&t_pol_ctx::site_lists, &t_pol_match::site_list,
                               pol_entry_match_site_list_add, pol_entry_match_site_list_delete,
                               pol_site_list_cfg_del, POL_MATCH_F_SITE_LIST, 18, 25> {
  static constexpr bool kRepeatNotifies = false;
  static constexpr auto* add = change_range<pol_site_list_add_entry>;
  static constexpr auto* del = change_range<pol_site_list_del_entry>;
  static void ask(t_pol_route_query*, t_pol_route_attr* attr, uint32_t n) { attr->site = n; }
};

struct VpnFamily : ListFamily<&t_pol_ctx::vpn_lists, &t_pol_match::vpn_list,
                              pol_entry_match_vpn_list_add, pol_entry_match_vpn_list_delete,
                              pol_vpn_list_cfg_del, POL_MATCH_F_VPN_LIST, 22, 30> {
  static constexpr bool kRepeatNotifies = false;
  static constexpr auto* add = change_range<pol_vpn_list_add_entry>;
  static constexpr auto* del = change_range<pol_vpn_list_del_entry>;
  static void ask(t_pol_route_query* query, t_pol_route_attr*, uint32_t n) { query->vpn = n; }
};

struct TlocFamily : ListFamily<&t_pol_ctx::tloc_lists, &t_pol_match::tloc_list,
                               pol_entry_match_tloc_list_add, pol_entry_match_tloc_list_delete,
                               pol_tloc_list_cfg_del, POL_MATCH_F_TLOC_LIST, 19, 28> {
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_tloc_id tloc = numbered_tloc(n);
    return pol_tloc_list_add_entry(ctx, list, &tloc, 0);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_tloc_id tloc = numbered_tloc(n);
    return pol_tloc_list_del_entry(ctx, list, &tloc);
  }
  static void ask(t_pol_route_query*, t_pol_route_attr* attr, uint32_t n) {
    attr->present = POL_ATTR_TLOC;
    attr->tloc = numbered_tloc(n);
  }
};

struct ColorFamily : ListFamily<&t_pol_ctx::color_lists, &t_pol_match::color_list,
                                pol_entry_match_color_list_add, pol_entry_match_color_list_delete,
                                pol_color_list_cfg_del, POL_MATCH_F_COLOR_LIST, 21, 29> {
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_color_list_add_entry(ctx, list, static_cast<uint16_t>(n));
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_color_list_del_entry(ctx, list, static_cast<uint16_t>(n));
  }
  static void ask(t_pol_route_query*, t_pol_route_attr* attr, uint32_t n) {
    attr->present = POL_ATTR_TLOC;
    attr->tloc.color = static_cast<uint8_t>(n);
  }
};

struct PfxFamily : ListFamily<&t_pol_ctx::pfx_lists, &t_pol_match::pfx_list,
                              pol_entry_match_pfx_list_add, pol_entry_match_pfx_list_delete,
                              pol_pfx_list_cfg_del, POL_MATCH_F_PFX_LIST, 16, 27> {
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_pol_pfx_record record = pfx_record(n);
    return pol_pfx_list_entry_add(ctx, list, &record);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_pol_pfx_record record = pfx_record(n);
    return pol_pfx_list_del_entry(ctx, list, &record);
  }
  static void ask(t_pol_route_query* query, t_pol_route_attr*, uint32_t n) {
    query->prefix = pfx_record(n).prefix;
  }
};

template <auto kTree, auto kChange, auto kCfgDel, uint32_t kList, uint32_t kXml,
          const pol::FwdRef*... kRoleRefs>
struct ObjectFamily {
  static constexpr uint32_t kKind = POL_KIND_PERF_ROUTE, kListMem = kList, kXmlType = kXml;
  static constexpr auto kObjects = kTree;
  static constexpr const pol::FwdRef* kRoles[] = {kRoleRefs...};
  static constexpr auto* cfg_del = kCfgDel;

  static auto* find(t_pol_ctx* ctx, const char* list) { return pol::named_find(ctx->*kTree, list); }
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t /*n*/) {
    return kChange(ctx, list);
  }
  static t_pol_fwd_user* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list,
                                uint8_t* changed) {
    return pol::fwd_ref_add(ctx, e, list, changed, *kRoles[0]);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol::fwd_ref_delete(ctx, e, changed, *kRoles[0]);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) {
    return e.fwd.user->*kRoles[0]->user;
  }
  static bool in_force(const t_pol_entry& e) {
    return (e.*kRoles[0]->flags & kRoles[0]->flag) != 0;
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
