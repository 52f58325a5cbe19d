/* SPDX-License-Identifier: Apache-2.0
 *
 * proof_findings.h - what policies and lists say in vain, over every route there can be: sequences that
 * never decide or could go, defaults that are never reached, policies that are equal, elements that the
 * others of their list cover.
 *
 * What a look at single sequences tells already (one without clauses that takes everything, lists that
 * are absent or empty) is not told again.
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
};

/* `direction` NONE: what is said holds in both. What is not known is told in `unknown`. REQUIRES: the
 * library holds what the model was read from. Throws InternalError. */
std::vector<ProofFinding> proof_findings(const Model& model, uint32_t direction,
                                         const Bounds& bounds, std::vector<std::string>* unknown);

/* Elements that could go one after another, and by which others each is covered. */
struct Covered {
  size_t element;
  std::vector<size_t> by;
};
std::vector<Covered> covered_elements(const ListModel& list);

/* As configuration writes it: "10.0.0.0/8", "5-7". */
std::string element_text(const ListModel& list, const t_pol_content_element& element);

}  // namespace polctl

#endif
