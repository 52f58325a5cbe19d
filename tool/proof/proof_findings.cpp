// SPDX-License-Identifier: Apache-2.0
#include "proof_findings.h"

#include <fmt/format.h>

namespace polctl {

namespace {

void add_elements(const Model& model, std::vector<ProofFinding>* findings) {
  for (const ListModel& list : model.lists()) {
    for (const Covered& each : covered_elements(list)) {
      std::vector<std::string> by;
      by.reserve(each.by.size());
      for (size_t other : each.by) by.push_back(element_text(list, list.elements[other]));
      findings->push_back(
          {ProofFinding::Subject::kElement, list.type, list.name, 0, list.elements[each.element],
           fmt::format("it changes no answer: {} of its list take{} all that it takes", some_of(by),
                       by.size() == 1 ? "s" : ""),
           ""});
    }
  }
}

}  // namespace

std::vector<ProofFinding> proof_findings(const Model& model, uint32_t direction,
                                         const Bounds& bounds, std::vector<std::string>* unknown) {
  std::vector<uint32_t> directions = {direction};
  if (direction == POL_DIR_NONE) directions = {POL_DIR_IN, POL_DIR_OUT};
  constexpr size_t kMostRoutes = 100;
  std::vector<ProofFinding> findings;
  std::vector<std::string> routes;
  for (const PolicyModel& policy : model.policies()) {
    try {
      sequence_proofs(policy, directions, bounds, &findings, &routes);
    } catch (const NotKnown& bound) {
      unknown->push_back(fmt::format("what policy {} says in vain: {}", policy.name, bound.what()));
    }
  }
  add_elements(model, &findings);
  if (routes.size() > kMostRoutes) routes.resize(kMostRoutes);
  equal_policies(model, routes, directions, bounds, &findings, unknown);
  return findings;
}

}  // namespace polctl
