// SPDX-License-Identifier: Apache-2.0
// The dumps of users, policies and sequences, and the one of everything.
#include "policy/pol_dump.h"

#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "kel/ipaddr.h"
#include "kel/tloc.h"
#include "policy/pol_util.h"

namespace {

constexpr size_t kFlagText = 512;

const char* shown_list(const t_pol_clause_user& user) {
  return user.list != nullptr ? user.list->name : "<none>";
}

void dump_match(const t_pol_entry& entry, t_cli_user_ctx* cli) {
  const t_pol_match& match = entry.match;
  char text[kFlagText] = "";
  maapi_cli_printf(cli, "\n        match %s [%s (0x%x) ]", pol_util_match_type_str(match.type),
                   pol_util_match_flags_str(&entry, text, sizeof text), entry.match_flags);

  auto has = [&entry](uint32_t flag) { return (entry.match_flags & flag) != 0; };
  auto list = [&](uint32_t flag, const char* format, const t_pol_clause_user& user) {
    if (!has(flag)) return;
    maapi_cli_printf(cli, "\n            %s: %s (%p)", format, shown_list(user),
                     static_cast<const void*>(user.list));
  };
  auto number = [&](uint32_t flag, const char* word, uint32_t value) {
    if (has(flag)) maapi_cli_printf(cli, "\n            %s: %u", word, value);
  };
  auto word = [&](uint32_t flag, const char* name, const char* value) {
    if (has(flag)) maapi_cli_printf(cli, "\n            %s: %s", name, value);
  };
  number(POL_MATCH_F_TAG, "tag", match.tag);
  number(POL_MATCH_F_DOMAIN, "domain", match.domain);
  number(POL_MATCH_F_GROUP, "group", match.group);
  number(POL_MATCH_F_PREF, "preference", match.preference);
  if (has(POL_MATCH_F_VPN_ID)) maapi_cli_printf(cli, "\n            vpn-id: %lu", match.vpn_id);
  list(POL_MATCH_F_VPN_LIST, "vpn-list", match.vpn_list);
  number(POL_MATCH_F_SITE, "site-id", match.site);
  list(POL_MATCH_F_SITE_LIST, "site-list", match.site_list);
  word(POL_MATCH_F_TLOC, "tloc", tloc_id_print_short(&match.tloc, text, sizeof text));
  list(POL_MATCH_F_TLOC_LIST, "tloc-list", match.tloc_list);
  list(POL_MATCH_F_PFX_LIST, "prefix-list", match.pfx_list);
  if (has(POL_MATCH_F_ORIGIN)) {
    maapi_cli_printf(cli, "\n            origin: %u %u", unsigned{match.origin_protocol},
                     unsigned{match.origin_subtype});
  }
  word(POL_MATCH_F_ORIGINATOR, "originator", ipaddr_print(&match.originator, text, sizeof text));
  number(POL_MATCH_F_CARRIER, "carrier", match.carrier);
  number(POL_MATCH_F_SRC_PORT, "source-port", match.src_port);
  number(POL_MATCH_F_DST_PORT, "destination-port", match.dst_port);
  word(POL_MATCH_F_DSCP, "dscp", pol_util_dscp_str(match.dscp));
  word(POL_MATCH_F_PROTO, "protocol", pol_util_proto_str(match.proto));
  word(POL_MATCH_F_COLOR, "color", kel_util_tloc_color_name(match.color));
  list(POL_MATCH_F_COLOR_LIST, "color-list", match.color_list);
}

void dump_set(const t_pol_entry& entry, t_cli_user_ctx* cli) {
  const t_pol_set& set = entry.set;
  const uint32_t flags = entry.set_flags;
  char text[kFlagText] = "";
  maapi_cli_printf(cli, "\n        set: [%s (0x%x) ]",
                   pol_util_set_flags_str(&entry, text, sizeof text), flags);
  const char* ultimate = kel_attr_ultimate_tloc_str(set.ultimate_tloc);
  if ((flags & POL_SET_F_TAG) != 0) maapi_cli_printf(cli, "\n            tag: %u", set.tag);
  if ((flags & POL_SET_F_PREF) != 0) {
    maapi_cli_printf(cli, "\n            preference: %u", set.preference);
  }
  if ((flags & POL_SET_F_VPN_ID) != 0) {
    maapi_cli_printf(cli, "\n            vpn-id: %lu", set.vpn_id);
  }
  if ((flags & POL_SET_F_VPN_LIST) != 0) {
    maapi_cli_printf(cli, "\n            vpn-list: %s", shown_list(set.vpn_list));
  }
  if ((flags & POL_SET_F_TLOC_LIST) != 0) {
    maapi_cli_printf(cli, "\n            tloc-list: %s [%s]", shown_list(set.tloc_list), ultimate);
  }
  if ((flags & POL_SET_F_TLOC) != 0) {
    maapi_cli_printf(cli, "\n            tloc: %s [%s]",
                     tloc_id_print_short(&set.tloc, text, sizeof text), ultimate);
  }
  if ((flags & POL_SET_F_SERVICE) != 0) {
    maapi_cli_printf(cli, "\n            service: %u vpn: %lu tloc: %s [%s]", unsigned{set.service},
                     set.service_vpn, tloc_id_print_short(&set.service_tloc, text, sizeof text),
                     ultimate);
  }
}

const char* policies_title(uint32_t kind) {
  switch (kind) {
    case POL_KIND_ROUTE:
      return "\n          ROUTE POLICIES       ";
    case POL_KIND_DATA:
      return "\n      FORWARDING POLICIES      ";
    case POL_KIND_MEMBERSHIP:
      return "\n      MEMBERSHIP POLICIES      ";
    case POL_KIND_CFLOWD:
      return "\n      CFLOWD TEMPLATES      ";
    default:
      return "";
  }
}

}  // namespace

void pol_dump_entry(t_pol_entry* entry, t_cli_user_ctx* cli) {
  if (entry == nullptr) return;
  maapi_cli_printf(cli, "\n    sequence: %u", entry->sequence);
  dump_match(*entry, cli);
  maapi_cli_printf(cli, "\n        action: %s", pol_util_action_str(entry->action));
  dump_set(*entry, cli);
}

void pol_dump_block(t_pol_block* block, t_cli_user_ctx* cli) {
  if (block == nullptr) return;
  maapi_cli_printf(cli, "\n\n%s-policy %s", pol_util_type_str(block->kind), block->name);
  for (t_pol_entry& entry : block->in_order) pol_dump_entry(&entry, cli);
  maapi_cli_printf(cli, "\n    default-action: %s, fetch_xml: %u",
                   pol_util_action_str(block->default_action.action), unsigned{block->fetch_xml});
  maapi_cli_printf(cli, "\n\n Policy Users:\n");
  maapi_cli_printf(cli, "   =============");
  for (t_pol_user& user : block->users) pol_dump_user(cli, &user);
}

void pol_dump_user(t_cli_user_ctx* cli, t_pol_user* user) {
  if (user == nullptr) return;
  const bool queued = (user->flags & POL_USER_QUEUED) != 0;
  maapi_cli_printf(cli, "\n  %s, type: %s, dir: %s, policy: %s (%p), ctx: %p, cb: %p, change: %s",
                   user->name, pol_util_type_str(user->kind), pol_util_dir_str(user->direction),
                   user->block != nullptr ? user->block->name : "<none>",
                   static_cast<void*>(user->block), reinterpret_cast<void*>(user->user_arg),
                   reinterpret_cast<void*>(user->change), queued ? "pending" : "none");
}

int pol_dump_policies(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/, char** /*argv*/,
                      uint32_t kind) {
  if (g_pol_ctx_p == nullptr) return 0;
  pol::dump_title(cli, policies_title(kind));
  for (t_pol_block* block = pol_block_first(g_pol_ctx_p, kind); block != nullptr;
       block = pol_block_next(g_pol_ctx_p, block, kind)) {
    pol_dump_block(block, cli);
  }
  maapi_cli_printf(cli, "\n");
  return 0;
}

int pol_dump_route_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv) {
  return pol_dump_policies(cli, ignored, argc, argv, POL_KIND_ROUTE);
}

int pol_dump_membership_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv) {
  return pol_dump_policies(cli, ignored, argc, argv, POL_KIND_MEMBERSHIP);
}

int pol_dump_cflowd_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv) {
  return pol_dump_policies(cli, ignored, argc, argv, POL_KIND_CFLOWD);
}

int pol_dump_users(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/, char** /*argv*/) {
  if (g_pol_ctx_p == nullptr) return 0;
  pol::dump_title(cli, "\n              USERS                ");
  const auto& users = g_pol_ctx_p->users;
  for (t_pol_user* user = users.first(); user != nullptr; user = users.next(user)) {
    pol_dump_user(cli, user);
  }
  return 0;
}

int pol_dump_users_change_list(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                               char** /*argv*/) {
  if (g_pol_ctx_p == nullptr) return 0;
  pol::dump_title(cli, "\n         USERS CHANGE LIST         ");
  for (t_pol_user& user : g_pol_ctx_p->change_list) pol_dump_user(cli, &user);
  return 0;
}

int pol_dump_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv) {
  if (g_pol_ctx_p == nullptr) return 0;
  pol_dump_users(cli, ignored, argc, argv);
  pol_dump_users_change_list(cli, ignored, argc, argv);
  pol_dump_pfx_list_all(cli, ignored, argc, argv);
  pol_dump_tloc_list_all(cli, ignored, argc, argv);
  pol_dump_color_list_all(cli, ignored, argc, argv);
  pol_dump_site_list_all(cli, ignored, argc, argv);
  pol_dump_vpn_list_all(cli, ignored, argc, argv);
  pol_dump_route_policies(cli, ignored, argc, argv);
  pol_dump_fwd_pfx_list_all(cli, ignored, argc, argv);
  pol_dump_fwd_pfx6_list_all(cli, ignored, argc, argv);
  pol_dump_fwd_policer_all(cli, ignored, argc, argv);
  pol_dump_fwd_sla_class_all(cli, ignored, argc, argv);
  pol_dump_fwd_policies(cli, ignored, argc, argv);
  pol_dump_membership_policies(cli, ignored, argc, argv);
  pol_dump_cflowd_policies(cli, ignored, argc, argv);
  pol_dump_app_list_all(cli, ignored, argc, argv);
  pol_dump_xml_config_all(cli, ignored, argc, argv);
  pol_dump_memory_info(cli, ignored, argc, argv);
  pol_dump_yarrow_thread(cli, ignored, argc, argv);
  return 0;
}
