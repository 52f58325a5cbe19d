/* SPDX-License-Identifier: Apache-2.0
 *
 * proof_diff.h - polctl diff without routes: every kind of route that two versions answer differently.
 */
#ifndef TOOL_PROOF_PROOF_DIFF_H
#define TOOL_PROOF_PROOF_DIFF_H

#include <deque>
#include <string>
#include <vector>

#include "difference.h"
#include "tool/commands.h"

namespace polctl {

/* A kind of routes that is answered differently, told in words. */
struct ShownDifference {
  std::string policy;
  uint32_t kind;
  SequenceModel before; /* these point into the models */
  SequenceModel after;
  Outcome was;
  Outcome is;
  uint32_t direction;
  ShownRoute route;
};

struct ProofDiff {
  std::vector<ShownDifference> differences; /* by policy */
  std::vector<std::string> notes;           /* policies that only one has */
  std::vector<std::string> unknown;         /* why the answer for a policy is not known */
};

/* Compares all policies of both, or the one named. No route of it has been asked of the library yet:
 * that is the caller's, whose context holds one of both. */
ProofDiff compare(const Model& before, const Model& after, const std::string& policy,
                  uint32_t direction, const Bounds& bounds);

/* Asks the library, which holds the old or the new policies. Throws InternalError. */
void verify_before(const ProofDiff& diff);
void verify_after(const ProofDiff& diff);

/* One line to each, and what it comes to. `out` is not flushed. */
void write_text(const ProofDiff& diff, uint32_t direction, Output* out);
void write_json(const ProofDiff& diff, Output* out);

int run_proof_diff(const DiffOptions& options, Output* out);

}  // namespace polctl

#endif
