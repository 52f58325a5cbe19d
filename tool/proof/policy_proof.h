/* SPDX-License-Identifier: Apache-2.0
 *
 * policy_proof.h - a policy as sets of routes: which routes each sequence takes and which it decides, and
 * what becomes of them. A second statement of the library's rules; Verifier holds it to the first.
 *
 *   RouteSpace space(bounds);
 *   PolicyProof policy(&space, *model.policy("branch", POL_KIND_ROUTE));
 *   size_t tagged = space.add(condition);   // all that is asked about, before the cut
 *   space.cut();
 *   RouteSet bad = policy.decided(i) & space.atom(tagged);
 *   if (!bad.empty()) verifier.require(space.show(bad), policy.sequence(i), ...);
 *
 * What throws NotKnown leaves the answer open; nothing else is ever guessed. Sets go before their space.
 */
#ifndef TOOL_PROOF_POLICY_PROOF_H
#define TOOL_PROOF_POLICY_PROOF_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/input_error.h"
#include "policy_model.h"
#include "route_space.h"

namespace polctl {

/* What becomes of the routes of one type that a sequence decides. */
struct Outcome {
  uint32_t action = POL_REJECT;
  /* An accept hangs on whether a TLOC of it resolves, which is the host's affair; else it rejects. */
  bool if_resolved = false;
  std::vector<std::pair<const char*, std::string>>
      sets; /* a word and its value; none on a reject */

  bool operator==(const Outcome& other) const;
};

Outcome outcome_of(const SequenceModel& sequence, uint32_t match_type, uint32_t direction);

/* "accept, set tag 5, preference 100" */
std::string outcome_text(const Outcome& outcome);

class PolicyProof {
 public:
  /* Adds what the policy asks to the space, which is not cut yet. */
  PolicyProof(RouteSpace* space, const PolicyModel& policy);

  const PolicyModel& model() const { return policy_; }
  size_t size() const { return policy_.sequences.size(); } /* the default action is the last */
  const SequenceModel& sequence(size_t i) const { return policy_.sequences[i]; }

  /* The types of routes that the policy is asked about: of a membership policy services alone. */
  RouteSet universe() const;
  /* The routes for which all clauses of the sequence hold. */
  const RouteSet& takes(size_t i) const;
  /* Those of them that no sequence before it takes. */
  const RouteSet& decided(size_t i) const;
  /* The sequence's clauses, as atoms of the space. */
  const std::vector<size_t>& atoms(size_t i) const { return atoms_[i]; }

  /* The parts of a set that sequences from `first` on take, in turn: not empty ones, by sequence. */
  using Part = std::pair<size_t, RouteSet>;
  std::vector<Part> split(RouteSet set, size_t first = 0) const;

 private:
  RouteSpace* space_;
  const PolicyModel& policy_;
  std::vector<std::vector<size_t>> atoms_;
  struct Sets {
    bool made = false;
    RouteSet set;
  };
  mutable std::vector<Sets> takes_;
  mutable std::vector<RouteSet> decided_; /* as far as asked for */
  mutable RouteSet rest_;                 /* what those leave */
};

/* Asks the library, in this process's context, about routes that are about to be shown. */
class Verifier {
 public:
  Verifier(const std::string& policy, uint32_t kind, uint32_t direction);
  ~Verifier();
  Verifier(const Verifier&) = delete;
  Verifier& operator=(const Verifier&) = delete;

  /* Throws InternalError unless the library decides the route by that sequence and to that outcome. */
  void require(const ShownRoute& route, const SequenceModel& decider) const;

  /* What becomes of each of these routes, a line each, if every TLOC resolves: equal policies have equal
   * texts. */
  std::string answers(const std::string& lines) const;

 private:
  struct Users;
  std::string policy_;
  uint32_t direction_;
  std::unique_ptr<Users> users_;
};

}  // namespace polctl

#endif
