/* SPDX-License-Identifier: Apache-2.0
 *
 * difference.h - the routes that two policies answer differently: by action or by what is set, and not by
 * the numbers of sequences alone.
 *
 * Sequences that ask and answer the same are paired first, then those between them in their order, if
 * they answer the same. A route can be answered differently only if a sequence without a partner takes
 * it, or one of a pair and not the other: what is asked of two policies of which little has changed is
 * asked of few routes.
 */
#ifndef TOOL_PROOF_DIFFERENCE_H
#define TOOL_PROOF_DIFFERENCE_H

#include <vector>

#include "policy_proof.h"

namespace polctl {

struct Difference {
  size_t before; /* the deciding sequences */
  size_t after;
  Outcome was;
  Outcome is;
  uint32_t direction; /* in which these are their answers */
  RouteSet routes;
};

/* Whether both ask and answer the same, sequence by sequence, numbers aside. The space need not be cut. */
bool plainly_equal(const PolicyProof& before, const PolicyProof& after,
                   const std::vector<uint32_t>& directions);

/* In the order of the sequences. Both policies are of the space, and of one kind. `directions` are those
 * in which they may be applied: it counts if they differ in one of them; `was` and `is` are of the first
 * in which they do. Throws NotKnown. */
std::vector<Difference> differences(RouteSpace* space, const PolicyProof& before,
                                    const PolicyProof& after,
                                    const std::vector<uint32_t>& directions);

}  // namespace polctl

#endif
