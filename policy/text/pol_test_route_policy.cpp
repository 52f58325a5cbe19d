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
#include "text/pol_test_grammar.h"

namespace pol {
namespace {

// What the line has named so far. Both are alive or null: whatever deletes one resets it here.
struct Line {
  t_pol_ctx* ctx;
  t_pol_block* block;
  t_pol_entry* entry;  // of `block`, or of one that the line named before
  uint8_t changed;
  Caller parser;
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
  t_pol_block* block = pol_block_find(line.ctx, clause.text(), kind, nullptr);
  if (block == nullptr) return;
  const bool own_block = line.block == block;
  const bool own_entry = line.entry != nullptr && line.entry->block == block;
  pol_block_find_and_delete(line.ctx, clause.text(), kind, &line.changed);
  // A forwarding policy that stays, empty, for its users stays the line's too.
  if (pol_block_find(line.ctx, clause.text(), kind, nullptr) != nullptr) return;
  if (own_block) line.block = nullptr;
  if (own_entry) line.entry = nullptr;
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

// Take the clauses off their lists and drop them, telling nobody.
void drop_match(t_pol_ctx* ctx, t_pol_entry* entry) {
  for (const auto& row : kMatchLists) {
    t_pol_clause_user* user = &(entry->match.*row.user);
    if (user->list != nullptr) user_leave(ctx, user, Leaving::kForgets);
  }
  match_reset(entry);
}

void drop_set(t_pol_ctx* ctx, t_pol_entry* entry) {
  for (const auto& row : kSetLists) {
    t_pol_clause_user* user = &(entry->set.*row.user);
    if (user->list != nullptr) user_leave(ctx, user, Leaving::kForgets);
  }
  if ((entry->set_flags & POL_SET_F_TLOC_LIST) != 0) entry->block->sets &= ~POL_SETS_TLOC_LIST;
  set_reset(entry);
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

// What carries out a clause, and what its "delete" does.
using ClauseStep = void (*)(Line& line, t_pol_entry* entry, const Clause& clause);

template <class Number, auto kAdd>
void add_number(Line& line, t_pol_entry* entry, const Clause& clause) {
  kAdd(line.ctx, entry, static_cast<Number>(text_number(clause.text())), &line.changed);
}

template <auto kAdd>
void add_word(Line& line, t_pol_entry* entry, const Clause& clause) {
  kAdd(line.ctx, entry, clause.word(), &line.changed);
}

template <auto kAdd>
void add_list(Line& line, t_pol_entry* entry, const Clause& clause) {
  kAdd(line.ctx, entry, clause.text(), &line.changed);
}

template <auto kAdd>
void add_tloc(Line& line, t_pol_entry* entry, const Clause& clause) {
  const t_tloc_id tloc = clause.tloc();
  kAdd(line.ctx, entry, &tloc, &line.changed);
}

template <auto kDelete>
void remove(Line& line, t_pol_entry* entry, const Clause& /*clause*/) {
  kDelete(line.ctx, entry, &line.changed);
}

// On purpose: a list clause goes whatever list the line names, and tells nobody.
template <auto kWord, uint32_t kFlag, auto kArea, auto kUser>
void drop_list(Line& line, t_pol_entry* entry, const Clause& /*clause*/) {
  t_pol_clause_user* user = &(entry->*kArea.*kUser);
  entry->*kWord &= ~kFlag;
  if (user->list != nullptr) user_leave(line.ctx, user, Leaving::kForgets);
}

template <uint32_t kFlag, auto kUser>
constexpr ClauseStep kDropMatch = drop_list<&t_pol_entry::match_flags, kFlag, &t_pol_entry::match, kUser>;

void begin_match(Line& line, t_pol_entry* entry, const Clause& clause) {
  pol_entry_match_add(line.ctx, entry->block, entry, clause.word(), &line.changed);
}

void begin_set(Line& line, t_pol_entry* entry, const Clause& /*clause*/) {
  pol_entry_set_add(line.ctx, entry);
}

struct ClauseRow {
  TextOp op;
  ClauseStep add;
  ClauseStep remove;
};

constexpr ClauseRow kClauses[] = {
    {TextOp::kMatch, begin_match, remove<pol_entry_match_delete>},
    {TextOp::kSet, begin_set, remove<pol_entry_set_delete>},
    {TextOp::kAction, add_word<pol_entry_action_add>, remove<pol_entry_action_delete>},
    {TextOp::kMatchTag, add_number<uint32_t, pol_entry_match_tag_add>,
     remove<pol_entry_match_tag_delete>},
    {TextOp::kMatchPreference, add_number<uint32_t, pol_entry_match_preference_add>,
     remove<pol_entry_match_preference_delete>},
    {TextOp::kMatchDomain, add_number<uint32_t, pol_entry_match_domain_add>,
     remove<pol_entry_match_domain_delete>},
    {TextOp::kMatchVpnId, add_number<uint64_t, pol_entry_match_vpn_id_add>,
     remove<pol_entry_match_vpn_id_delete>},
    {TextOp::kMatchSite, add_number<uint32_t, pol_entry_match_site_add>,
     remove<pol_entry_match_site_delete>},
    {TextOp::kMatchSiteList, add_list<pol_entry_match_site_list_add>,
     kDropMatch<POL_MATCH_F_SITE_LIST, &t_pol_match::site_list>},
    {TextOp::kMatchVpnList, add_list<pol_entry_match_vpn_list_add>,
     kDropMatch<POL_MATCH_F_VPN_LIST, &t_pol_match::vpn_list>},
    {TextOp::kMatchTlocList, add_list<pol_entry_match_tloc_list_add>,
     kDropMatch<POL_MATCH_F_TLOC_LIST, &t_pol_match::tloc_list>},
    {TextOp::kMatchPfxList, add_list<pol_entry_match_pfx_list_add>,
     kDropMatch<POL_MATCH_F_PFX_LIST, &t_pol_match::pfx_list>},
    {TextOp::kMatchTloc, add_tloc<pol_entry_match_tloc_add>, remove<pol_entry_match_tloc_delete>},
    {TextOp::kMatchSrcPort, add_number<uint16_t, pol_entry_match_src_port_add>,
     remove<pol_entry_match_src_port_delete>},
    {TextOp::kMatchDstPort, add_number<uint16_t, pol_entry_match_dst_port_add>,
     remove<pol_entry_match_dst_port_delete>},
    {TextOp::kMatchProtocol, add_word<pol_entry_match_proto_add>,
     remove<pol_entry_match_proto_delete>},
    {TextOp::kMatchDscp, add_word<pol_entry_match_dscp_add>, remove<pol_entry_match_dscp_delete>},
    {TextOp::kSetTag, add_number<uint32_t, pol_entry_set_tag_add>,
     remove<pol_entry_set_tag_delete>},
    {TextOp::kSetPreference, add_number<uint32_t, pol_entry_set_preference_add>,
     remove<pol_entry_set_preference_delete>},
    {TextOp::kSetVpnId, add_number<uint64_t, pol_entry_set_vpn_id_add>,
     remove<pol_entry_set_vpn_id_delete>},
    {TextOp::kSetVpnList, add_list<pol_entry_set_vpn_list_add>,
     drop_list<&t_pol_entry::set_flags, POL_SET_F_VPN_LIST, &t_pol_entry::set,
               &t_pol_set::vpn_list>},
    {TextOp::kSetTloc, add_tloc<pol_entry_set_tloc_add>, remove<pol_entry_set_tloc_delete>},
};

void free_step(Line& line, const Clause& clause) {
  switch (clause.step.row->op) {
    case TextOp::kRoutePolicy:
      return block_step(line, clause, POL_KIND_ROUTE);
    case TextOp::kFwdPolicy:
      return block_step(line, clause, POL_KIND_DATA);
    case TextOp::kMatchSrcIp:  // sequences keep no addresses of packets: the clause is only read
      POL_LOG_PLAIN_FROM(line.parser, "src-ip\n");
      if (!clause.step.deletes) POL_LOG_PLAIN_FROM(line.parser, "src-ip-add\n");
      return;
    default:
      return;
  }
}

void entry_step(Line& line, t_pol_entry* entry, const Clause& clause) {
  for (const ClauseRow& row : kClauses) {
    if (row.op == clause.step.row->op) {
      return (clause.step.deletes ? row.remove : row.add)(line, entry, clause);
    }
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
  pol::Line line = {g_pol_ctx_p, nullptr, nullptr, 0, pol::Caller::here()};
  pol::TextStep step;
  while (walk.next(&step)) {
    if (step.row == nullptr) {
      // A line that ends where a clause could stand is merely over.
      if (step.keyword < words.count) {
        POL_LOG_PLAIN_FROM(line.parser, "no keyword: %s\n", words.at(step.keyword));
      }
      return;
    }
    pol::run_step(line, {step, words});
  }
}
