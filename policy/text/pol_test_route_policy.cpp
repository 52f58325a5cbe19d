// SPDX-License-Identifier: Apache-2.0
// Lines of the text policy file that configure policies.
//
// A line is read left to right; each step acts on the policy and the sequence that the line named
// last. Where a text clause does the same as the configuration's, the clause operations do it; what
// differs on purpose is written out here.
#include <arpa/inet.h>

#include "base/pol_log.h"
#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"
#include "policy/pol_clause.h"
#include "policy/pol_color_list.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"
#include "text/pol_test_grammar.h"

namespace pol {
namespace {

// What the line has named so far. Both are alive or null: whatever deletes one resets it here.
struct Line {
  t_pol_ctx* ctx;
  t_pol_block* block;
  t_pol_entry* entry;  // of `block`, or of one that the line named before
  uint8_t changed;
};

// One step with its values at hand.
struct Clause {
  const TextStep& step;
  const TextWords& words;

  const char* text(uint32_t index = 0) const { return words.at(step.value + index); }
  uint32_t number() const { return static_cast<uint32_t>(text_number(text())); }
  uint32_t word() const { return text_word_value(*step.row->value[0], text()); }
  t_tloc_id tloc() const {
    t_tloc_id tloc = {};
    tloc.family = KEL_AF_INET;
    tloc.addr.v4 = inet_network(text());
    tloc.color = static_cast<uint8_t>(text_number(text(1)));
    return tloc;
  }
};

void block_step(Line& line, const Clause& clause, uint32_t kind) {
  if (!clause.step.deletes) {
    line.block = pol_block_find_or_create(line.ctx, clause.text(), kind, &line.changed);
    return;
  }
  t_pol_block* gone = pol_block_find(line.ctx, clause.text(), kind, nullptr);
  if (gone == nullptr) return;
  if (line.entry != nullptr && line.entry->block == gone) line.entry = nullptr;
  if (line.block == gone) line.block = nullptr;
  pol_block_find_and_delete(line.ctx, clause.text(), kind, &line.changed);
}

// A forwarding policy has no sequences: there the line is left without one.
void sequence_step(Line& line, const Clause& clause) {
  if (!clause.step.deletes) {
    line.entry = pol_entry_find_or_create(line.ctx, line.block, clause.number(), &line.changed);
    return;
  }
  if (line.entry == pol_entry_find(line.ctx, line.block, clause.number(), nullptr)) {
    line.entry = nullptr;
  }
  pol_entry_find_and_delete(line.ctx, line.block, clause.number(), &line.changed);
}

// Takes the match clauses off their lists and drops them, telling nobody.
void drop_match(t_pol_ctx* ctx, t_pol_entry* entry) {
  t_pol_match& match = entry->match;
  pol_color_list_user_remove(ctx, list_of<t_color_list>(match.color_list), &match.color_list);
  pol_pfx_list_user_remove(ctx, list_of<t_pfx_list>(match.pfx_list), &match.pfx_list);
  pol_site_list_pol_user_remove(ctx, list_of<t_site_list>(match.site_list), &match.site_list);
  pol_tloc_list_user_remove(ctx, list_of<t_tloc_list>(match.tloc_list), &match.tloc_list);
  pol_vpn_list_match_user_remove(ctx, list_of<t_vpn_list>(match.vpn_list), &match.vpn_list);
  match.type = 0;
  entry->match_flags = 0;
}

void drop_set(t_pol_ctx* ctx, t_pol_entry* entry) {
  t_pol_set& set = entry->set;
  pol_vpn_list_action_user_remove(ctx, list_of<t_vpn_list>(set.vpn_list), &set.vpn_list);
  pol_tloc_list_action_user_remove(ctx, list_of<t_tloc_list>(set.tloc_list), &set.tloc_list);
  if ((entry->set_flags & POL_SET_F_TLOC_LIST) != 0) entry->block->sets &= ~POL_SETS_TLOC_LIST;
  entry->set_flags = 0;
}

// On purpose: who uses the policy is told when match clauses went, or when an accept is deleted;
// another action alone tells nobody.
void default_action_step(Line& line, t_pol_block* block, const Clause& clause) {
  t_pol_entry* entry = &block->default_action;
  line.entry = entry;
  const bool had_match = entry->match_flags != 0 || entry->match.type != 0;
  drop_match(line.ctx, entry);
  bool tell = had_match;
  if (clause.step.deletes) {
    drop_set(line.ctx, entry);
    entry_reset(entry, block);
    tell = clause.word() == POL_ACCEPT;
  } else {
    entry->action = clause.word();
  }
  if (!tell) return;
  line.changed = 1;
  pol_block_users_add_to_chg_list(line.ctx, block);
}

void match_add(Line& line, t_pol_entry* entry, const Clause& clause) {
  t_pol_ctx* ctx = line.ctx;
  uint8_t* changed = &line.changed;
  const uint32_t number = clause.number();
  switch (clause.step.row->op) {
    case TextOp::kMatchTag:
      pol_entry_match_tag_add(ctx, entry, number, changed);
      return;
    case TextOp::kMatchPreference:
      pol_entry_match_preference_add(ctx, entry, number, changed);
      return;
    case TextOp::kMatchDomain:
      pol_entry_match_domain_add(ctx, entry, number, changed);
      return;
    case TextOp::kMatchVpnId:
      pol_entry_match_vpn_id_add(ctx, entry, static_cast<uint64_t>(text_number(clause.text())),
                                 changed);
      return;
    case TextOp::kMatchSite:
      pol_entry_match_site_add(ctx, entry, number, changed);
      return;
    case TextOp::kMatchSiteList:
      pol_entry_match_site_list_add(ctx, entry, clause.text(), changed);
      return;
    case TextOp::kMatchVpnList:
      pol_entry_match_vpn_list_add(ctx, entry, clause.text(), changed);
      return;
    case TextOp::kMatchTlocList:
      pol_entry_match_tloc_list_add(ctx, entry, clause.text(), changed);
      return;
    case TextOp::kMatchPfxList:
      pol_entry_match_pfx_list_add(ctx, entry, clause.text(), changed);
      return;
    case TextOp::kMatchTloc: {
      const t_tloc_id tloc = clause.tloc();
      pol_entry_match_tloc_add(ctx, entry, &tloc, changed);
      return;
    }
    case TextOp::kMatchSrcPort:
      pol_entry_match_src_port_add(ctx, entry, static_cast<uint16_t>(number), changed);
      return;
    case TextOp::kMatchDstPort:
      pol_entry_match_dst_port_add(ctx, entry, static_cast<uint16_t>(number), changed);
      return;
    case TextOp::kMatchProtocol:
      pol_entry_match_proto_add(ctx, entry, clause.word(), changed);
      return;
    case TextOp::kMatchDscp:
      pol_entry_match_dscp_add(ctx, entry, clause.word(), changed);
      return;
    default:
      return;
  }
}

// On purpose: a list clause goes whatever list the line names, and tells nobody.
bool drop_flag(t_pol_entry* entry, uint32_t flag) {
  if ((entry->match_flags & flag) == 0) return false;
  entry->match_flags &= ~flag;
  return true;
}

void match_delete(Line& line, t_pol_entry* entry, const Clause& clause) {
  t_pol_ctx* ctx = line.ctx;
  t_pol_match& match = entry->match;
  uint8_t* changed = &line.changed;
  switch (clause.step.row->op) {
    case TextOp::kMatchTag:
      return pol_entry_match_tag_delete(ctx, entry, changed);
    case TextOp::kMatchPreference:
      return pol_entry_match_preference_delete(ctx, entry, changed);
    case TextOp::kMatchDomain:
      return pol_entry_match_domain_delete(ctx, entry, changed);
    case TextOp::kMatchVpnId:
      return pol_entry_match_vpn_id_delete(ctx, entry, changed);
    case TextOp::kMatchSite:
      return pol_entry_match_site_delete(ctx, entry, changed);
    case TextOp::kMatchSiteList:
      if (!drop_flag(entry, POL_MATCH_F_SITE_LIST)) return;
      pol_site_list_pol_user_remove(ctx, list_of<t_site_list>(match.site_list), &match.site_list);
      return;
    case TextOp::kMatchVpnList:
      if (!drop_flag(entry, POL_MATCH_F_VPN_LIST)) return;
      pol_vpn_list_match_user_remove(ctx, list_of<t_vpn_list>(match.vpn_list), &match.vpn_list);
      return;
    case TextOp::kMatchTlocList:
      if (!drop_flag(entry, POL_MATCH_F_TLOC_LIST)) return;
      pol_tloc_list_user_remove(ctx, list_of<t_tloc_list>(match.tloc_list), &match.tloc_list);
      return;
    case TextOp::kMatchPfxList:
      if (!drop_flag(entry, POL_MATCH_F_PFX_LIST)) return;
      pol_pfx_list_user_remove(ctx, list_of<t_pfx_list>(match.pfx_list), &match.pfx_list);
      return;
    case TextOp::kMatchTloc:
      return pol_entry_match_tloc_delete(ctx, entry, changed);
    case TextOp::kMatchSrcPort:
      return pol_entry_match_src_port_delete(ctx, entry, changed);
    case TextOp::kMatchDstPort:
      return pol_entry_match_dst_port_delete(ctx, entry, changed);
    case TextOp::kMatchProtocol:
      return pol_entry_match_proto_delete(ctx, entry, changed);
    case TextOp::kMatchDscp:
      return pol_entry_match_dscp_delete(ctx, entry, changed);
    default:
      return;
  }
}

void set_add(Line& line, t_pol_entry* entry, const Clause& clause) {
  t_pol_ctx* ctx = line.ctx;
  uint8_t* changed = &line.changed;
  switch (clause.step.row->op) {
    case TextOp::kSetTag:
      pol_entry_set_tag_add(ctx, entry, clause.number(), changed);
      return;
    case TextOp::kSetPreference:
      pol_entry_set_preference_add(ctx, entry, clause.number(), changed);
      return;
    case TextOp::kSetVpnId:
      pol_entry_set_vpn_id_add(ctx, entry, static_cast<uint64_t>(text_number(clause.text())),
                               changed);
      return;
    case TextOp::kSetVpnList:
      pol_entry_set_vpn_list_add(ctx, entry, clause.text(), changed);
      return;
    case TextOp::kSetTloc: {
      const t_tloc_id tloc = clause.tloc();
      pol_entry_set_tloc_add(ctx, entry, &tloc, changed);
      return;
    }
    default:
      return;
  }
}

void set_delete(Line& line, t_pol_entry* entry, const Clause& clause) {
  t_pol_ctx* ctx = line.ctx;
  uint8_t* changed = &line.changed;
  switch (clause.step.row->op) {
    case TextOp::kSetTag:
      return pol_entry_set_tag_delete(ctx, entry, changed);
    case TextOp::kSetPreference:
      return pol_entry_set_preference_delete(ctx, entry, changed);
    case TextOp::kSetVpnId:
      return pol_entry_set_vpn_id_delete(ctx, entry, changed);
    case TextOp::kSetVpnList: {
      t_pol_clause_user& user = entry->set.vpn_list;
      entry->set_flags &= ~POL_SET_F_VPN_LIST;
      pol_vpn_list_action_user_remove(ctx, list_of<t_vpn_list>(user), &user);
      return;
    }
    case TextOp::kSetTloc:
      return pol_entry_set_tloc_delete(ctx, entry, changed);
    default:
      return;
  }
}

// Sequences keep no addresses of packets: the clause is only read.
void source_ip_step(bool deletes) {
  POL_LOG_PLAIN("src-ip\n");
  if (!deletes) POL_LOG_PLAIN("src-ip-add\n");
}

void free_step(Line& line, const Clause& clause) {
  switch (clause.step.row->op) {
    case TextOp::kRoutePolicy:
      return block_step(line, clause, POL_KIND_ROUTE);
    case TextOp::kFwdPolicy:
      return block_step(line, clause, POL_KIND_DATA);
    case TextOp::kMatchSrcIp:
      return source_ip_step(clause.step.deletes);
    default:
      return;
  }
}

void entry_step(Line& line, t_pol_entry* entry, const Clause& clause) {
  const TextOp op = clause.step.row->op;
  uint8_t* changed = &line.changed;
  if (clause.step.deletes) {
    if (op == TextOp::kMatch) return pol_entry_match_delete(line.ctx, entry, changed);
    if (op == TextOp::kSet) return pol_entry_set_delete(line.ctx, entry, changed);
    if (op == TextOp::kAction) return pol_entry_action_delete(line.ctx, entry, changed);
    op < TextOp::kSetTag ? match_delete(line, entry, clause) : set_delete(line, entry, clause);
  } else if (op == TextOp::kMatch) {
    pol_entry_match_add(line.ctx, entry->block, entry, clause.word(), changed);
  } else if (op == TextOp::kSet) {
    pol_entry_set_add(line.ctx, entry);
  } else if (op == TextOp::kAction) {
    pol_entry_action_add(line.ctx, entry, clause.word(), changed);
  } else {
    op < TextOp::kSetTag ? match_add(line, entry, clause) : set_add(line, entry, clause);
  }
}

void run_step(Line& line, const Clause& clause) {
  switch (clause.step.row->needs) {
    case TextNeeds::kNothing:
      return free_step(line, clause);
    case TextNeeds::kPolicy:
      if (line.block == nullptr) return;
      if (clause.step.row->op == TextOp::kSequence) return sequence_step(line, clause);
      return default_action_step(line, line.block, clause);
    case TextNeeds::kSequence:
      if (line.entry != nullptr) entry_step(line, line.entry, clause);
      return;
  }
}

}  // namespace
}  // namespace pol

void pol_test_parse_route_policy(t_pol_test_tokens tokens, uint32_t count) {
  if (g_pol_ctx_p == nullptr) return;
  const pol::TextWords words = pol::text_words(tokens, count);
  pol::TextWalk walk(words, *pol::text_line("route-policy"));
  pol::Line line = {g_pol_ctx_p, nullptr, nullptr, 0};
  pol::TextStep step;
  while (walk.next(&step)) {
    if (step.row == nullptr) {
      POL_LOG_PLAIN("no keyword: %s\n", words.at(step.keyword));
      return;
    }
    pol::run_step(line, {step, words});
  }
}
