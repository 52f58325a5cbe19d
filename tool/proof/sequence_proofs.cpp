// SPDX-License-Identifier: Apache-2.0
//
// A map from routes to the sequences that decide them tells of each set of routes who takes it: from the
// first sequence on who took what a later one asks for, from the last one back who would decide if it
// were not there.
#include <fmt/format.h>

#include <array>
#include <map>
#include <optional>
#include <set>

#include "host/output.h"
#include "policy/pol_util.h"
#include "proof_findings.h"

namespace polctl {

namespace {

// The answers of a policy's sequences as numbers: equal ones answer alike, whatever the direction.
class AnswerNumbers {
 public:
  AnswerNumbers(const PolicyProof& policy, const std::vector<uint32_t>& directions)
      : policy_(policy), directions_(directions), known_(policy.size()) {}

  bool alike(size_t i, size_t j, uint32_t type) { return number(i, type) == number(j, type); }

 private:
  size_t number(size_t i, uint32_t type) {
    std::optional<size_t>& known = known_[i][type - 1];
    if (known) return *known;
    std::string text;
    for (uint32_t direction : directions_) {
      text += outcome_text(outcome_of(policy_.sequence(i), type, direction)) + '\n';
    }
    known = numbers_.try_emplace(std::move(text), numbers_.size()).first->second;
    return *known;
  }

  const PolicyProof& policy_;
  const std::vector<uint32_t>& directions_;
  std::map<std::string, size_t> numbers_;
  std::vector<std::array<std::optional<size_t>, std::size(kRouteTypes)>> known_;
};

class SequenceProofs {
 public:
  SequenceProofs(const PolicyModel& model, const std::vector<uint32_t>& directions,
                 const Bounds& bounds, std::vector<ProofFinding>* findings)
      : space_(bounds),
        policy_(&space_, model),
        answers_(policy_, directions),
        verifier_(model.name, model.kind, directions.front()),
        findings_(*findings) {
    space_.cut(policy_.size());
  }

  void find() {
    never_decide();
    could_go();
    default_reached();
  }

  // Of the default action and the last sequences, where policies that were copied differ.
  void add_routes(std::vector<std::string>* routes) const {
    constexpr size_t kRoutes = 3;
    size_t added = 0;
    for (size_t i = policy_.size(); i-- > 0 && added < kRoutes;) {
      if (!decides_some(i)) continue;
      routes->push_back(route_json(space_.show(policy_.decided(i))));
      ++added;
    }
  }

 private:
  size_t last() const { return policy_.size() - 1; }
  uint32_t type_of(size_t i) const { return policy_.sequence(i).is.match_type; }
  bool decides_some(size_t i) const { return !policy_.decided(i).empty(); }

  // `route` shows it, and is decided by sequence `decider`.
  void add(size_t i, std::string what, const ShownRoute* route = nullptr, size_t decider = 0) {
    if (route != nullptr) verifier_.require(*route, policy_.sequence(decider));
    const bool is_default = policy_.sequence(i).is_default();
    findings_.push_back(
        {is_default ? ProofFinding::Subject::kDefault : ProofFinding::Subject::kSequence,
         policy_.model().kind,
         policy_.model().name,
         policy_.sequence(i).is.sequence,
         {},
         std::move(what),
         route != nullptr ? route_json(*route) : ""});
  }

  // "sequences 10, 20 and the default action"
  std::string named(const std::set<uint32_t>& which) const {
    std::vector<std::string> numbers;
    for (uint32_t i : which) {
      if (i != last()) numbers.push_back(std::to_string(policy_.sequence(i).is.sequence));
    }
    std::string text = numbers.empty()
                           ? ""
                           : (numbers.size() == 1 ? "sequence " : "sequences ") + some_of(numbers);
    if (which.count(static_cast<uint32_t>(last())) == 0) return text;
    return text.empty() ? "the default action" : text + " and the default action";
  }

  // A clause whose list has nothing, which is told where lists are looked at.
  bool asks_nothing(size_t i) const {
    const SequenceModel& sequence = policy_.sequence(i);
    auto bare = [&](uint32_t flag, const ListModel* list) {
      return (sequence.is.match_flags & flag) != 0 && (list == nullptr || list->elements.empty());
    };
    return bare(POL_MATCH_F_SITE_LIST, sequence.site_list) ||
           bare(POL_MATCH_F_VPN_LIST, sequence.vpn_list) ||
           bare(POL_MATCH_F_TLOC_LIST, sequence.tloc_list) ||
           bare(POL_MATCH_F_COLOR_LIST, sequence.color_list) ||
           bare(POL_MATCH_F_PFX_LIST, sequence.pfx_list);
  }

  void never_decide() {
    std::vector<size_t> idle;
    std::array<bool, std::size(kRouteTypes)> all_taken = {};
    for (size_t i = 0; i < last(); ++i) {
      const uint32_t type = type_of(i);
      if (type < POL_MATCH_ROUTE || type > POL_MATCH_SERVICE) continue;
      if (!all_taken[type - 1] && !decides_some(i)) idle.push_back(i);
      all_taken[type - 1] = all_taken[type - 1] || policy_.atoms(i).empty();
    }
    if (idle.empty()) return;
    RouteMap deciders(space_.numbers(), static_cast<uint32_t>(last()));
    size_t done = 0;
    for (size_t i : idle) {
      for (; done < i; ++done) {
        if (decides_some(done)) deciders.put(policy_.decided(done), static_cast<uint32_t>(done));
      }
      const RouteSet& asked = policy_.takes(i);
      if (asked.empty()) {
        if (!asks_nothing(i)) add(i, "never decides: no route has all that its clauses ask for");
        continue;
      }
      std::set<uint32_t> takers;
      deciders.numbers_of(asked, [&](uint32_t number) {
        takers.insert(number);
        return true;
      });
      const size_t first = *takers.begin();
      ShownRoute route = space_.show(asked & policy_.decided(first));
      const char* how = takers.size() == 1 ? "{} takes all that it asks for"
                                           : "{} take all that it asks for between them";
      add(i, "never decides: " + fmt::format(fmt::runtime(how), named(takers)), &route, first);
    }
  }

  void could_go() {
    RouteMap deciders(space_.numbers(), static_cast<uint32_t>(last()));
    for (size_t i = last(); i-- > 0;) {
      if (!decides_some(i)) continue;
      std::set<uint32_t> instead;
      bool alike = true;
      deciders.numbers_of(policy_.decided(i), [&](uint32_t number) {
        alike = answers_.alike(i, number, type_of(i));
        if (alike) instead.insert(number);
        return alike;
      });
      if (!alike) {
        deciders.put(policy_.takes(i), static_cast<uint32_t>(i));
        continue;
      }
      default_needed_ = default_needed_ || instead.count(static_cast<uint32_t>(last())) > 0;
      ShownRoute route = space_.show(policy_.decided(i));
      add(i,
          fmt::format("it could go: {} would answer all that it decides the same", named(instead)),
          &route, i);
    }
  }

  // By the types that the policy has sequences for; not where it stands in for what could go.
  void default_reached() {
    if (default_needed_) return;
    std::vector<std::string> types;
    for (uint32_t type : kRouteTypes) {
      bool any = false;
      for (size_t i = 0; i < last(); ++i) any = any || type_of(i) == type;
      if (!any) continue;
      if (!(policy_.decided(last()) & space_.type(type)).empty()) return;
      types.emplace_back(pol_util_match_type_str(type));
    }
    if (types.empty()) return;
    add(last(),
        fmt::format("no {} reaches it: the sequences take every one", joined(types, " or ")));
  }

  RouteSpace space_;
  PolicyProof policy_;
  AnswerNumbers answers_;
  Verifier verifier_;
  std::vector<ProofFinding>& findings_;
  bool default_needed_ = false;
};

}  // namespace

std::string some_of(const std::vector<std::string>& texts) {
  constexpr size_t kNamed = 5;
  if (texts.size() <= kNamed) return joined(texts, ", ");
  return joined({texts.begin(), texts.begin() + kNamed}, ", ") +
         fmt::format(" and {} more", texts.size() - kNamed);
}

void sequence_proofs(const PolicyModel& policy, const std::vector<uint32_t>& directions,
                     const Bounds& bounds, std::vector<ProofFinding>* findings,
                     std::vector<std::string>* routes) {
  SequenceProofs proofs(policy, directions, bounds, findings);
  proofs.find();
  proofs.add_routes(routes);
}

}  // namespace polctl
