// SPDX-License-Identifier: Apache-2.0
#include "proof_findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "difference.h"
#include "host/address_text.h"
#include "host/output.h"
#include "policy/pol_util.h"

namespace polctl {

namespace {

constexpr uint32_t kTypes[] = {POL_MATCH_ROUTE, POL_MATCH_TLOC, POL_MATCH_SERVICE};
constexpr size_t kSamples = 200;  // routes that tell unlike policies apart
constexpr size_t kNamed = 5;      // sequences or elements in one finding

bool answers_alike(const SequenceModel& a, const SequenceModel& b, uint32_t type,
                   const std::vector<uint32_t>& directions) {
  return std::all_of(directions.begin(), directions.end(), [&](uint32_t direction) {
    return outcome_of(a, type, direction) == outcome_of(b, type, direction);
  });
}

std::string named(const std::vector<std::string>& texts) {
  std::vector<std::string> shown(
      texts.begin(), texts.begin() + static_cast<ptrdiff_t>(std::min(texts.size(), kNamed)));
  std::string text = joined(shown, ", ");
  return texts.size() > kNamed ? text + fmt::format(" and {} more", texts.size() - kNamed) : text;
}

std::string sequences_text(const PolicyProof& policy, const std::vector<size_t>& which) {
  std::vector<std::string> numbers;
  bool by_default = false;
  for (size_t i : which) {
    const SequenceModel& sequence = policy.sequence(i);
    by_default = by_default || sequence.is_default();
    if (!sequence.is_default()) numbers.push_back(std::to_string(sequence.is.sequence));
  }
  std::string text =
      numbers.empty() ? "" : (numbers.size() == 1 ? "sequence " : "sequences ") + named(numbers);
  if (!by_default) return text;
  return text.empty() ? "the default action" : text + " and the default action";
}

class PolicyFindings {
 public:
  PolicyFindings(const PolicyProof& policy, RouteSpace* space, std::vector<uint32_t> directions,
                 std::vector<ProofFinding>* findings)
      : policy_(policy), space_(*space), directions_(std::move(directions)), findings_(*findings) {}

  void find() {
    for (size_t i = 0; i + 1 < policy_.size(); ++i) {
      const uint32_t type = policy_.sequence(i).is.match_type;
      if (type < POL_MATCH_ROUTE || type > POL_MATCH_SERVICE) continue;
      if (policy_.decided(i).empty()) {
        never_decides(i);
      } else {
        could_go(i, type);
      }
    }
    default_reached();
  }

 private:
  void add(size_t i, std::string what) {
    const SequenceModel& sequence = policy_.sequence(i);
    findings_.push_back(
        {sequence.is_default() ? ProofFinding::Subject::kDefault : ProofFinding::Subject::kSequence,
         policy_.model().kind,
         policy_.model().name,
         sequence.is.sequence,
         {},
         std::move(what)});
  }

  // A clause whose list has nothing.
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

  void never_decides(size_t i) {
    if (policy_.takes(i).empty()) {
      if (!asks_nothing(i)) add(i, "never decides: no route has all that its clauses ask for");
      return;
    }
    std::vector<size_t> takers;
    RouteSet left = policy_.takes(i);
    for (size_t j = 0; j < i && !left.empty(); ++j) {
      RouteSet here = left & policy_.takes(j);
      if (here.empty()) continue;
      if (policy_.atoms(j).empty()) return;  // it takes everything, and is told as such
      left = left - here;
      takers.push_back(j);
    }
    add(i, fmt::format("never decides: {} {} all that it asks for{}",
                       sequences_text(policy_, takers), takers.size() == 1 ? "takes" : "take",
                       takers.size() == 1 ? "" : " between them"));
  }

  void could_go(size_t i, uint32_t type) {
    std::vector<size_t> instead;
    RouteSet left = policy_.decided(i);
    for (size_t j = i + 1; j < policy_.size() && !left.empty(); ++j) {
      RouteSet here = left & policy_.takes(j);
      if (here.empty()) continue;
      if (!answers_alike(policy_.sequence(i), policy_.sequence(j), type, directions_)) return;
      left = left - here;
      instead.push_back(j);
    }
    add(i, fmt::format("it could go: {} would answer all that it decides the same",
                       sequences_text(policy_, instead)));
  }

  // Of the types that the policy has sequences for.
  void default_reached() {
    const size_t last = policy_.size() - 1;
    std::vector<std::string> types;
    for (uint32_t type : kTypes) {
      bool any = false;
      bool everything = false;
      for (size_t i = 0; i < last; ++i) {
        any = any || policy_.sequence(i).is.match_type == type;
        everything =
            everything || (policy_.sequence(i).is.match_type == type && policy_.atoms(i).empty());
      }
      if (!any) continue;
      if (everything || !(policy_.decided(last) & space_.type(type)).empty()) return;
      types.emplace_back(pol_util_match_type_str(type));
    }
    if (types.empty()) return;
    add(last,
        fmt::format("the default action is never reached: the sequences take every {} between them",
                    joined(types, " and every ")));
  }

  const PolicyProof& policy_;
  RouteSpace& space_;
  std::vector<uint32_t> directions_;
  std::vector<ProofFinding>& findings_;
};

void add_elements(const Model& model, std::vector<ProofFinding>* findings) {
  for (const ListModel& list : model.lists()) {
    for (const Covered& each : covered_elements(list)) {
      std::vector<std::string> by;
      for (size_t other : each.by) by.push_back(element_text(list, list.elements[other]));
      findings->push_back(
          {ProofFinding::Subject::kElement, list.type, list.name, 0, list.elements[each.element],
           fmt::format("it changes no answer: {} of its list take{} all that it takes", named(by),
                       by.size() == 1 ? "s" : "")});
    }
  }
}

bool equal(const PolicyModel& a, const PolicyModel& b, const std::vector<uint32_t>& directions,
           const Bounds& bounds) {
  RouteSpace space(bounds);
  PolicyProof before(&space, a);
  PolicyProof after(&space, b);
  if (plainly_equal(before, after, directions)) return true;
  space.cut();
  return differences(&space, before, after, directions).empty();
}

// Only policies that answer some routes alike, which cost little to ask about, are compared over all.
void add_equal(const Model& model, const std::vector<std::string>& samples,
               const std::vector<uint32_t>& directions, const Bounds& bounds,
               std::vector<ProofFinding>* findings, std::vector<std::string>* unknown) {
  const std::string lines = joined(samples, "\n");
  std::map<std::pair<uint32_t, std::string>, std::vector<const PolicyModel*>> alike;
  for (const PolicyModel& policy : model.policies()) {
    std::string answers;
    for (uint32_t direction : directions) {
      answers += Verifier(policy.name, policy.kind, direction).answers(lines);
    }
    auto& others = alike[{policy.kind, answers}];
    const PolicyModel* same = nullptr;
    for (const PolicyModel* other : others) {
      try {
        if (!equal(*other, policy, directions, bounds)) continue;
        same = other;
        break;
      } catch (const NotKnown& bound) {
        unknown->push_back(fmt::format("whether policies {} and {} are equal: {}", other->name,
                                       policy.name, bound.what()));
      }
    }
    if (same == nullptr) {
      others.push_back(&policy);
      continue;
    }
    findings->push_back(
        {ProofFinding::Subject::kPolicy,
         policy.kind,
         policy.name,
         0,
         {},
         fmt::format("it answers every route as policy {} does", in_quotes(same->name))});
  }
}

}  // namespace

std::vector<ProofFinding> proof_findings(const Model& model, uint32_t direction,
                                         const Bounds& bounds, std::vector<std::string>* unknown) {
  std::vector<uint32_t> directions = {direction};
  if (direction == POL_DIR_NONE) directions = {POL_DIR_IN, POL_DIR_OUT};
  std::vector<ProofFinding> findings;
  std::vector<std::string> samples;
  for (const PolicyModel& policy : model.policies()) {
    RouteSpace space(bounds);
    PolicyProof proof(&space, policy);
    try {
      space.cut();
      PolicyFindings(proof, &space, directions, &findings).find();
      for (size_t i = proof.size(); i-- > 0 && samples.size() < kSamples;) {
        if (proof.decided(i).empty()) continue;
        samples.push_back(route_json(space.show(proof.decided(i))));
        if (i + 3 < proof.size()) break;
      }
    } catch (const NotKnown& bound) {
      unknown->push_back(fmt::format("what policy {} says in vain: {}", policy.name, bound.what()));
    }
  }
  add_elements(model, &findings);
  add_equal(model, samples, directions, bounds, &findings, unknown);
  return findings;
}

}  // namespace polctl
