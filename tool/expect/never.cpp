// SPDX-License-Identifier: Apache-2.0
#include "never.h"

#include <fmt/format.h>

#include "host/output.h"
#include "policy/pol_util.h"
#include "tool/json_line.h"
#include "tool/proof/condition.h"
#include "tool/proof/policy_proof.h"

namespace polctl {

namespace {

bool concerns(const Never& never, const SequenceModel& sequence) {
  if (!never.sequence.looked_at) return true;
  if (!never.sequence.value) return sequence.is_default();
  return !sequence.is_default() && sequence.is.sequence == *never.sequence.value;
}

CounterExample counter_example(const SequenceModel& sequence, const Outcome& outcome,
                               const ShownRoute& route, bool certain) {
  std::string what = fmt::format("{}: {}", decider_text(sequence), outcome_text(outcome));
  if (!route.matters.empty()) what += "; what matters: " + joined(route.matters, ", ");
  if (!certain) what += "; not known: whether a TLOC resolves is the host's affair";
  return {route_json(route), what};
}

}  // namespace

std::optional<CounterExample> NeverProver::disprove(const TestCase& test,
                                                    const std::string& where) const {
  const Never& never = *test.never;
  try {
    RouteSpace space(bounds_);
    PolicyProof policy(&space, *model_.policy(test.policy, test.kind));
    Conditions conditions(never.where, model_, where, &space);
    space.cut();
    RouteSet routes = conditions.set(policy.universe());
    std::optional<CounterExample> perhaps;
    Verifier verifier(test.policy, test.kind, test.direction);
    for (size_t i = 0; i < policy.size(); ++i) {
      const SequenceModel& sequence = policy.sequence(i);
      if (!concerns(never, sequence)) continue;
      for (uint32_t type : kRouteTypes) {
        Outcome outcome = outcome_of(sequence, type, test.direction);
        bool certain = !never.action || !outcome.if_resolved;
        if (certain && never.action && *never.action != outcome.action) continue;
        RouteSet here = policy.decided(i) & routes & space.type(type);
        if (here.empty() || (!certain && perhaps)) continue;
        ShownRoute route = space.show(here);
        verifier.require(route, sequence);
        perhaps = counter_example(sequence, outcome, route, certain);
        if (certain) return perhaps;
      }
    }
    return perhaps;
  } catch (const NotKnown& bound) {
    return CounterExample{"", fmt::format("not known: {} (--limit gives more)", bound.what())};
  }
}

std::string never_text(const Never& never) {
  std::string text = never.action ? pol_util_action_str(*never.action) : "decided";
  if (never.sequence.looked_at) {
    text += never.sequence.value ? fmt::format(" by sequence {}", *never.sequence.value)
                                 : " by the default action";
  }
  return never.where.empty() ? text : text + " where " + joined(never.where, " and ");
}

std::string never_json(const Never& never) {
  std::vector<std::string> parts;
  if (never.action) {
    parts.push_back(fmt::format("\"action\":\"{}\"", pol_util_action_str(*never.action)));
  }
  if (never.sequence.looked_at) {
    const std::optional<uint32_t>& value = never.sequence.value;
    parts.push_back(fmt::format("\"sequence\":{}", value ? std::to_string(*value) : "null"));
  }
  std::vector<std::string> where;
  for (const std::string& each : never.where) where.push_back(json_string(each));
  parts.push_back(fmt::format("\"where\":[{}]", joined(where, ",")));
  return "{" + joined(parts, ",") + "}";
}

}  // namespace polctl
