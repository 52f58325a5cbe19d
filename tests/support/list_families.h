// SPDX-License-Identifier: Apache-2.0
//
// list_families.h - the five lists with elements under one set of names, for tests of what they
// share. An element is chosen by a small number; `clause` is a match clause that uses the list.
#pragma once

#include "support/policy_fixture.h"

inline t_pol_pfx_record pfx_record(uint32_t number, uint32_t op = POL_PFX_EQ) {
  t_pol_pfx_record record = {};
  record.op = op;
  record.prefix.addr.family = KEL_AF_INET;
  record.prefix.addr.addr.v4 = number << 16;
  record.prefix.len = 16;
  return record;
}

inline t_tloc_id numbered_tloc(uint32_t number) {
  t_tloc_id tloc = {};
  tloc.family = KEL_AF_INET;
  tloc.addr.v4 = number;
  return tloc;
}

struct SiteFamily {
  static constexpr uint32_t kListMem = 18, kEntryMem = 25, kFlag = POL_MATCH_F_SITE_LIST;
  static constexpr bool kRepeatNotifies = false;
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_site_list_add_entry(ctx, list, n, n);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_site_list_del_entry(ctx, list, n, n);
  }
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* list) {
    return pol_site_list_cfg_del(ctx, list);
  }
  static t_site_list* find(t_pol_ctx* ctx, const char* list) {
    return pol::named_find(ctx->site_lists, list);
  }
  static t_pol_match* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list, uint8_t* changed) {
    return pol_entry_match_site_list_add(ctx, e, list, changed);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol_entry_match_site_list_delete(ctx, e, changed);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.site_list; }
  static void ask(t_pol_route_query* query, t_pol_route_attr* attr, uint32_t n) {
    (void)query;
    attr->site = n;
  }
};

struct VpnFamily {
  static constexpr uint32_t kListMem = 22, kEntryMem = 30, kFlag = POL_MATCH_F_VPN_LIST;
  static constexpr bool kRepeatNotifies = false;
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_vpn_list_add_entry(ctx, list, n, n);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_vpn_list_del_entry(ctx, list, n, n);
  }
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* list) {
    return pol_vpn_list_cfg_del(ctx, list);
  }
  static t_vpn_list* find(t_pol_ctx* ctx, const char* list) {
    return pol::named_find(ctx->vpn_lists, list);
  }
  static t_pol_match* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list, uint8_t* changed) {
    return pol_entry_match_vpn_list_add(ctx, e, list, changed);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol_entry_match_vpn_list_delete(ctx, e, changed);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.vpn_list; }
  static void ask(t_pol_route_query* query, t_pol_route_attr* attr, uint32_t n) {
    (void)attr;
    query->vpn = n;
  }
};

struct TlocFamily {
  static constexpr uint32_t kListMem = 19, kEntryMem = 28, kFlag = POL_MATCH_F_TLOC_LIST;
  static constexpr bool kRepeatNotifies = true;
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_tloc_id tloc = numbered_tloc(n);
    return pol_tloc_list_add_entry(ctx, list, &tloc, 0);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_tloc_id tloc = numbered_tloc(n);
    return pol_tloc_list_del_entry(ctx, list, &tloc);
  }
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* list) {
    return pol_tloc_list_cfg_del(ctx, list);
  }
  static t_tloc_list* find(t_pol_ctx* ctx, const char* list) {
    return pol_tloc_list_find(ctx, list);
  }
  static t_pol_match* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list, uint8_t* changed) {
    return pol_entry_match_tloc_list_add(ctx, e, list, changed);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol_entry_match_tloc_list_delete(ctx, e, changed);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.tloc_list; }
  static void ask(t_pol_route_query* query, t_pol_route_attr* attr, uint32_t n) {
    (void)query;
    attr->present |= POL_ATTR_TLOC;
    attr->tloc = numbered_tloc(n);
  }
};

struct ColorFamily {
  static constexpr uint32_t kListMem = 21, kEntryMem = 29, kFlag = POL_MATCH_F_COLOR_LIST;
  static constexpr bool kRepeatNotifies = true;
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_color_list_add_entry(ctx, list, static_cast<uint16_t>(n));
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    return pol_color_list_del_entry(ctx, list, static_cast<uint16_t>(n));
  }
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* list) {
    return pol_color_list_cfg_del(ctx, list);
  }
  static t_color_list* find(t_pol_ctx* ctx, const char* list) {
    return pol_color_list_find(ctx, list);
  }
  static t_pol_match* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list, uint8_t* changed) {
    return pol_entry_match_color_list_add(ctx, e, list, changed);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol_entry_match_color_list_delete(ctx, e, changed);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.color_list; }
  static void ask(t_pol_route_query* query, t_pol_route_attr* attr, uint32_t n) {
    (void)query;
    attr->present |= POL_ATTR_TLOC;
    attr->tloc.color = static_cast<uint8_t>(n);
  }
};

struct PfxFamily {
  static constexpr uint32_t kListMem = 16, kEntryMem = 27, kFlag = POL_MATCH_F_PFX_LIST;
  static constexpr bool kRepeatNotifies = true;
  static uint32_t add(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_pol_pfx_record record = pfx_record(n);
    return pol_pfx_list_entry_add(ctx, list, &record);
  }
  static uint32_t del(t_pol_ctx* ctx, const char* list, uint32_t n) {
    t_pol_pfx_record record = pfx_record(n);
    return pol_pfx_list_del_entry(ctx, list, &record);
  }
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* list) {
    return pol_pfx_list_cfg_del(ctx, list);
  }
  static t_pfx_list* find(t_pol_ctx* ctx, const char* list) {
    return pol::named_find(ctx->pfx_lists, list);
  }
  static t_pol_match* clause(t_pol_ctx* ctx, t_pol_entry* e, const char* list, uint8_t* changed) {
    return pol_entry_match_pfx_list_add(ctx, e, list, changed);
  }
  static void drop(t_pol_ctx* ctx, t_pol_entry* e, uint8_t* changed) {
    pol_entry_match_pfx_list_delete(ctx, e, changed);
  }
  static const t_pol_clause_user& user(const t_pol_entry& e) { return e.match.pfx_list; }
  static void ask(t_pol_route_query* query, t_pol_route_attr* attr, uint32_t n) {
    (void)attr;
    query->prefix = pfx_record(n).prefix;
  }
};
