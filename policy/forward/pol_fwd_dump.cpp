// SPDX-License-Identifier: Apache-2.0
// The dumps of data and app-route policies.
#include <algorithm>
#include <ctime>

#include "base/pol_dump_title.h"
#include "exchange/pol_xml_config_internal.h"
#include "forward/pol_fwd_action_internal.h"
#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_ref.h"
#include "kel/tloc.h"
#include "policy/pol_dump.h"
#include "policy/pol_util.h"

namespace {

constexpr size_t kText = 512;

struct TimeText {
  char text[26];  // what ctime_r fills
};

// With the newline that it ends with.
TimeText time_text(time_t time) {
  TimeText text = {};
  if (ctime_r(&time, text.text) == nullptr) text.text[0] = '\0';
  return text;
}

t_pol_fetch_time fetched(const t_pol_entry& entry, const pol::FwdRef& ref) {
  const pol::NamedHead* object = pol::fwd_object(entry, ref);
  return object != nullptr ? pol::xml_fetch_time(ref.xml_type, object->name) : t_pol_fetch_time{};
}

// Of an IPv4 and an IPv6 list of one direction: the latest fetch, and the longest of either.
t_pol_fetch_time later(const t_pol_fetch_time& a, const t_pol_fetch_time& b) {
  t_pol_fetch_time time = b.end > a.end ? b : a;
  time.longest = std::max(a.longest, b.longest);
  return time;
}

void dump_fetch_time(const char* whose, const t_pol_fetch_time& time, t_cli_user_ctx* cli) {
  maapi_cli_printf(cli,
                   "\n        %s fetch time:             Start: %s             End: %s"
                   "             Max: %d seconds",
                   whose, time_text(time.start).text, time_text(time.end).text, time.longest);
}

// The lines of an object that the sequence matches on.
void dump_match(const t_pol_entry& entry, const pol::FwdRef& ref, const char* word,
                t_cli_user_ctx* cli, const t_pol_fetch_time* time = nullptr) {
  const pol::NamedHead* object = pol::fwd_object(entry, ref);
  if (object == nullptr) return;
  maapi_cli_printf(cli, "\n    Match: %s %s (%p)", word, object->name,
                   static_cast<const void*>(object));
  if (time != nullptr) dump_fetch_time("Yarrow", *time, cli);
}

void dump_matches(const t_pol_entry& entry, t_cli_user_ctx* cli) {
  using namespace pol;
  const t_pol_fetch_time src = later(fetched(entry, kFwdSrcPfx), fetched(entry, kFwdSrcPfx6));
  const t_pol_fetch_time dst = later(fetched(entry, kFwdDstPfx), fetched(entry, kFwdDstPfx6));
  const t_pol_fetch_time none = {};
  dump_match(entry, kFwdSrcPfx, "Src pfx-list", cli, &src);
  dump_match(entry, kFwdDstPfx, "Dest pfx-list", cli, &dst);
  dump_match(entry, kFwdSrcPfx6, "Src pfx6-list", cli, &src);
  dump_match(entry, kFwdDstPfx6, "Dest pfx6-list", cli, &dst);
  dump_match(entry, kFwdAppId, "App-id", cli, &none);  // the agent has no text of it
}

void dump_app_lists(const t_pol_entry& entry, t_cli_user_ctx* cli) {
  const t_pol_fetch_time time = fetched(entry, pol::kFwdAppList);
  dump_match(entry, pol::kFwdAppList, "App-list", cli, &time);
  dump_match(entry, pol::kFwdDnsAppList, "Dns-App-list", cli);
  dump_match(entry, pol::kFwdSaasAppList, "Saas-App-list", cli);
}

void dump_tlocs(const t_pol_entry& entry, t_cli_user_ctx* cli) {
  const t_pol_fwd_clauses& action = entry.fwd;
  char text[kText];
  if (pol::tloc_given(action.tloc)) {
    maapi_cli_printf(cli, "\n    Set: TLOC: %s vpn-id: %lu (label: %u)",
                     tloc_id_print_short(&action.tloc, text, sizeof text), action.vpn_id,
                     action.tloc_label);
  }
  if (const pol::NamedHead* list = pol::fwd_object(entry, pol::kFwdTlocList)) {
    maapi_cli_printf(cli, "\n    Set: tloc-list: %s vpn-id: %lu", list->name, action.vpn_id);
    dump_fetch_time("Yarrow", fetched(entry, pol::kFwdTlocList), cli);
  }
  if (action.tlocs.empty()) return;
  maapi_cli_printf(cli, "\n    Set: Internal tloc-list");
  for (const t_tloc_entry& record : action.tlocs) {
    maapi_cli_printf(cli, "\n        TLOC: %s vpn-id: %lu (label: %u)",
                     tloc_id_print_short(&record.tloc, text, sizeof text), action.vpn_id,
                     record.label);
  }
}

// The line of an object that the sequence's action names.
void dump_set(const t_pol_entry& entry, const pol::FwdRef& ref, const char* word,
              t_cli_user_ctx* cli) {
  const pol::NamedHead* object = pol::fwd_object(entry, ref);
  if (object == nullptr) return;
  maapi_cli_printf(cli, "\n    Set: %s: %s", word, object->name);
  dump_fetch_time("Yarrow", fetched(entry, ref), cli);
}

}  // namespace

void pol_dump_fwd_entry(t_pol_entry* entry, t_cli_user_ctx* cli) {
  if (entry == nullptr) return;
  pol::fwd_check(*entry);
  char text[kText] = "";
  maapi_cli_printf(cli, "\n    Entry %d (%p) (%s 0x%x)", static_cast<int>(entry->sequence),
                   static_cast<void*>(entry), pol_util_match_flags_str(entry, text, sizeof text),
                   entry->match_flags);
  dump_matches(*entry, cli);
  if (entry->fwd.service != 0) {
    maapi_cli_printf(cli, "\n    Set: service: %s vpn-id: %lu %s",
                     kel_util_svc_name(entry->fwd.service), entry->fwd.vpn_id,
                     entry->fwd.service_local != 0 ? "local" : "");
  }
  dump_app_lists(*entry, cli);
  dump_tlocs(*entry, cli);
  dump_set(*entry, pol::kFwdPolicer, "policer", cli);
  dump_set(*entry, pol::kFwdSlaClass, "sla-class", cli);
}

void pol_dump_fwd_vpn_entry(t_pol_fwd_vpn_entry* vpn, t_cli_user_ctx* cli) {
  if (vpn == nullptr) return;
  // A host may have taken the record off its list itself.
  const char* list = vpn->vpn_list != nullptr ? vpn->vpn_list->head.name : nullptr;
  maapi_cli_printf(cli, "\n  vpn: %s (%p), (list: %p)", vpn->name, static_cast<void*>(vpn),
                   static_cast<void*>(vpn->vpn_list));
  dump_fetch_time("VPN-list yarrow", pol::xml_fetch_time(POL_XML_VPN_LIST, list), cli);
  for (t_pol_entry* entry = vpn->entries.first(); entry != nullptr;
       entry = vpn->entries.next(entry)) {
    pol_dump_fwd_entry(entry, cli);
  }
}

void pol_dump_fwd_block(t_pol_block* block, t_cli_user_ctx* cli) {
  if (block == nullptr) return;
  maapi_cli_printf(cli, "\nPolicy: %s type: %s (%p)", block->name, pol_util_type_str(block->kind),
                   static_cast<void*>(block));
  if (pol::is_forwarding(block->kind)) {
    const auto& vpns = block->fwd_vpns;
    for (auto* vpn = vpns.first(); vpn != nullptr; vpn = vpns.next(vpn)) {
      pol_dump_fwd_vpn_entry(vpn, cli);
    }
  }
  maapi_cli_printf(cli, "\n\n Policy Users:\n");
  maapi_cli_printf(cli, "   =============");
  for (t_pol_user& user : block->users) pol_dump_user(cli, &user);
}

int pol_dump_fwd_policies(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                          char** /*argv*/) {
  if (g_pol_ctx_p == nullptr) return 0;
  pol::dump_title(cli, "\n        FORWARDING POLICIES    ");
  for (uint32_t kind : {POL_KIND_DATA, POL_KIND_PERF_ROUTE}) {
    for (t_pol_block* block = pol_block_first(g_pol_ctx_p, kind); block != nullptr;
         block = pol_block_next(g_pol_ctx_p, block, kind)) {
      pol_dump_fwd_block(block, cli);
    }
  }
  return 0;
}
