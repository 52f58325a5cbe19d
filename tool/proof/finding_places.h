/* SPDX-License-Identifier: Apache-2.0
 *
 * finding_places.h - where what a finding is about stands: as a path in configuration, or as a place in a
 * policy file.
 */
#ifndef TOOL_PROOF_FINDING_PLACES_H
#define TOOL_PROOF_FINDING_PLACES_H

#include <map>
#include <string>
#include <vector>

#include "host/source_file.h"
#include "proof_findings.h"

namespace polctl {

/* "/policy/control-policy{branch}/sequence{30}" */
std::string configuration_path(const ProofFinding& finding);

/* "route-policy 'branch' sequence 30" */
std::string policy_file_words(const ProofFinding& finding);

struct TextPlace {
  uint32_t line = 0;
  uint32_t column = 0;
  bool exact = true; /* else of the policy or list that it is part of */
};

/* Where a policy file first names its policies, sequences, default actions and list elements. */
class TextPlaces {
 public:
  explicit TextPlaces(const SourceFile& file);
  /* Line 0 when it stands nowhere. */
  TextPlace find(const ProofFinding& finding) const;

 private:
  std::map<std::vector<std::string>, TextPlace> places_;
};

}  // namespace polctl

#endif
