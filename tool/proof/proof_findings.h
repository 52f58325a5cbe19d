/* SPDX-License-Identifier: Apache-2.0
 *
 * proof_findings.h - what policies and lists say in vain, over every route there can be: sequences that
 * never decide or could go, defaults that are never reached, policies that are equal, elements that the
 * others of their list cover.
 *
 * Sequences that could go can all go together, with those that never decide; so can elements. What a look
 * at single sequences tells already (an earlier one without clauses, lists that are absent or empty) is
 * not told again.
 */
#ifndef TOOL_PROOF_PROOF_FINDINGS_H
#define TOOL_PROOF_PROOF_FINDINGS_H

#include <string>
#include <vector>

#include "policy_proof.h"

namespace polctl {

struct ProofFinding {
  enum class Subject { kPolicy, kDefault, kSequence, kElement };
  Subject subject = Subject::kPolicy;
  uint32_t kind = 0; /* enum pol_kind; of a list enum pol_graph_type */
  std::string name;  /* of the policy or list */
  uint32_t sequence = 0;
  t_pol_content_element element = {};
  std::string what;
  std::string route; /* that shows it, as RouteReader takes it; "": none can */
};

/* `direction` NONE: what is said holds in both. What is not known is told in `unknown`. REQUIRES: the
 * library holds what the model was read from. Throws InternalError. */
std::vector<ProofFinding> proof_findings(const Model& model, uint32_t direction,
                                         const Bounds& bounds, std::vector<std::string>* unknown);

/* The parts of it: what is about the sequences of one policy, with a few routes that it decides; and
 * policies that answer alike, of which `routes` tell some apart at little cost. The first throws NotKnown,
 * once the findings so far are there. */
void sequence_proofs(const PolicyModel& policy, const std::vector<uint32_t>& directions,
                     const Bounds& bounds, std::vector<ProofFinding>* findings,
                     std::vector<std::string>* routes);
void equal_policies(const Model& model, const std::vector<std::string>& routes,
                    const std::vector<uint32_t>& directions, const Bounds& bounds,
                    std::vector<ProofFinding>* findings, std::vector<std::string>* unknown);

/* Elements that could go one after another, and by which others each is covered. */
struct Covered {
  size_t element;
  std::vector<size_t> by;
};
std::vector<Covered> covered_elements(const ListModel& list);

/* As configuration writes it: "10.0.0.0/8", "5-7". */
std::string element_text(const ListModel& list, const t_pol_content_element& element);

/* The first few, and how many more there are. */
std::string some_of(const std::vector<std::string>& texts);

}  // namespace polctl

#endif
