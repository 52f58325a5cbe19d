// SPDX-License-Identifier: Apache-2.0
//
// Trees that came from one another: sharing what they have alike, and carrying edits over.
#ifndef AGENT_REBASE_H
#define AGENT_REBASE_H

#include <vector>

#include "agent/result.h"
#include "agent/tree.h"

namespace agent {

// What `after` holds, made of the nodes of `before` wherever the two are alike; `before` itself if
// they are alike throughout. Both of one schema node; either may be null.
NodeRef shared(const NodeRef& before, const NodeRef& after);

// Carries what turned `base` into `edited` over to `*target`, which came from `base` by other edits:
// edits of different nodes both hold, on one leaf those of `edited` win. An edit below an entry that
// `*target` has no more is a conflict: YARROW_ERR_INVALID with the path of each, and `*target` stays.
Result rebase(const NodeRef& base, const NodeRef& edited, NodeRef* target);

}  // namespace agent
#endif
