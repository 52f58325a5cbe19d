// SPDX-License-Identifier: Apache-2.0
#include "sequence_findings.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/config_mirror.h"
#include "policy/pol_config_tags.h"
#include "policy/pol_types.h"
#include "policy/pol_util.h"
#include "set_rules.h"

namespace polctl {

namespace {

constexpr uint32_t kAcceptValue = 0;

// Origins that configuration has words for and evaluation no rule: rip, eigrp, isis.
constexpr uint32_t kFirstIdleOrigin = 8;
constexpr uint32_t kLastIdleOrigin = 10;

// The set clause that a leaf belongs to; 0 for none. A TLOC list counts as one wherever it stands.
uint32_t set_flag(const Scope& scope, uint32_t tag) {
  auto inside = [&](uint32_t container) {
    return std::find(scope.begin(), scope.end(), container) != scope.end();
  };
  if (tag == POL_TAG_TLOC_LIST) return POL_SET_F_TLOC_LIST;
  if (inside(POL_TAG_SERVICE)) return POL_SET_F_SERVICE;
  if (inside(POL_TAG_TLOC)) return POL_SET_F_TLOC;
  switch (tag) {
    case POL_TAG_TAG:
      return POL_SET_F_TAG;
    case POL_TAG_PREFERENCE:
      return POL_SET_F_PREF;
    case POL_TAG_VPN:
      return POL_SET_F_VPN_ID;
    case POL_TAG_VPN_LIST:
      return POL_SET_F_VPN_LIST;
    default:
      return 0;
  }
}

std::string numbers_text(const std::vector<uint16_t>& numbers) {
  std::string text = numbers.size() == 1 ? "sequence " : "sequences ";
  for (size_t i = 0; i < numbers.size() && i < 5; ++i) {
    text += fmt::format("{}{}", i > 0 ? ", " : "", numbers[i]);
  }
  return text + (numbers.size() > 5 ? ", ..." : "");
}

}  // namespace

void SequenceFindings::take(const t_yarrow_change& change, bool membership) {
  std::string policy = fmt::format("/policy/{}-policy{{{}}}", membership ? "membership" : "control",
                                   key_text(value_text(change.keys[0])));
  uint16_t number = change.keys[1].val.u16;
  Sequence& sequence = policies_[policy][number];
  if (sequence.path.empty()) sequence.path = fmt::format("{}/sequence{{{}}}", policy, number);
  if (change.level == 3) {
    uint32_t type = change.keys[2].val.enumvalue + 1;
    return take_match(change, &sequence, type,
                      fmt::format("{}/match{{{}}}", sequence.path, pol_util_match_type_str(type)));
  }
  take_action(change, &sequence);
  if (!membership) return;
  // The action is in a container of its own.
  Match& match = sequence.matches[POL_MATCH_SERVICE];
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    match.has_clauses =
        match.has_clauses || leaf_path(change, scope, leaf.tag).starts_with("/match/");
  });
}

void SequenceFindings::take_match(const t_yarrow_change& change, Sequence* sequence, uint32_t type,
                                  const std::string& path) {
  Match& match = sequence->matches[type];
  match.path = path;
  for_each_leaf(change, [&](const Scope&, const t_yarrow_tag_value& leaf) {
    bool idle = leaf.tag == POL_TAG_ORIGIN && leaf.v.val.enumvalue >= kFirstIdleOrigin &&
                leaf.v.val.enumvalue <= kLastIdleOrigin;
    if (idle) {
      match.idle_origin = path + "/origin";
    } else {
      match.has_clauses = true;
    }
  });
}

void SequenceFindings::take_action(const t_yarrow_change& change, Sequence* sequence) {
  for_each_leaf(change, [&](const Scope& scope, const t_yarrow_tag_value& leaf) {
    if (leaf.tag == POL_TAG_ACTION_VALUE) sequence->accepts = leaf.v.val.enumvalue == kAcceptValue;
    std::string path = sequence->path + leaf_path(change, scope, leaf.tag);
    if (leaf.tag == POL_TAG_TLOC_ACTION) sequence->tloc_action = path;
    uint32_t flag = set_flag(scope, leaf.tag);
    if (flag == 0 || path.find("/action/set/") == std::string::npos) return;
    sequence->sets.emplace(flag, path);
  });
}

void SequenceFindings::finish(ConfigFindings* findings) {
  for (const auto& [policy, sequences] : policies_) {
    judge_reach(sequences, findings);
    for (const auto& [number, sequence] : sequences) judge_sets(sequence, findings);
    if (direction_ == POL_DIR_NONE) judge_both_ways(policy, sequences, findings);
  }
}

void SequenceFindings::judge_reach(const Sequences& sequences, ConfigFindings* findings) const {
  std::map<uint32_t, uint16_t> taken;  // by match type, the sequence that takes all there is
  for (const auto& [number, sequence] : sequences) {
    if (sequence.matches.empty()) {
      findings->push_back({sequence.path, "never decides: it has no match"});
      continue;
    }
    const auto& [type, match] = *sequence.matches.rbegin();
    for (const auto& [other, idle] : sequence.matches) {
      if (other == type) continue;
      findings->push_back({idle.path,
                           fmt::format("never looked at: a sequence has one match, and of several "
                                       "match {} is in force",
                                       pol_util_match_type_str(type)),
                           "a sequence of its own for it"});
    }
    if (!match.idle_origin.empty()) {
      findings->push_back({match.idle_origin,
                           "no route has this origin, and the clause is passed over: the sequence "
                           "matches as if it were not there",
                           "connected, static, service, aggregate, or one of OSPF, BGP and NAT",
                           true});
    }
    auto earlier = taken.find(type);
    if (earlier != taken.end()) {
      findings->push_back({sequence.path, fmt::format("never reached: sequence {} takes everything",
                                                      earlier->second)});
    } else if (!match.has_clauses) {
      taken[type] = number;
    }
  }
}

void SequenceFindings::judge_sets(const Sequence& sequence, ConfigFindings* findings) const {
  uint32_t type = sequence.matches.empty() ? 0 : sequence.matches.rbegin()->first;
  uint32_t action = sequence.accepts ? POL_ACCEPT : POL_REJECT;
  for (const SetRule& rule : set_rules()) {
    auto set = sequence.sets.find(rule.flag);
    if (set == sequence.sets.end()) continue;
    const char* why = why_idle(rule, action, type, direction_);
    if (why == nullptr) continue;
    bool rejects = action == POL_REJECT;
    findings->push_back(
        {set->second, fmt::format("never set: {}", why), rejects ? "action-value accept" : ""});
  }
  bool any_tloc = std::any_of(sequence.sets.begin(), sequence.sets.end(), [](const auto& set) {
    return (set.first & (POL_SET_F_TLOC | kOutboundSets)) != 0;
  });
  if (!sequence.tloc_action.empty() && !any_tloc) {
    findings->push_back({sequence.tloc_action,
                         "never acts: it says what becomes of the route's own TLOC beside the one "
                         "that is set, and none is",
                         "a tloc, a tloc-list or a service beside it"});
  }
}

// A policy is applied one way by whoever registers; what it sets for the other is then in vain.
void SequenceFindings::judge_both_ways(const std::string& policy, const Sequences& sequences,
                                       ConfigFindings* findings) const {
  std::vector<uint16_t> inbound;
  std::vector<uint16_t> outbound;
  for (const auto& [number, sequence] : sequences) {
    bool route = !sequence.matches.empty() && sequence.matches.rbegin()->first == POL_MATCH_ROUTE;
    if (!sequence.accepts || !route) continue;
    uint32_t flags = 0;
    for (const auto& [flag, path] : sequence.sets) flags |= flag;
    if ((flags & kInboundSets) != 0) inbound.push_back(number);
    if ((flags & kOutboundSets) != 0) outbound.push_back(number);
  }
  if (inbound.empty() || outbound.empty()) return;
  findings->push_back(
      {policy, fmt::format("sets what acts inbound alone ({}) and what acts outbound alone ({}): "
                           "whichever way it is applied, one of them is never set",
                           numbers_text(inbound), numbers_text(outbound))});
}

}  // namespace polctl
