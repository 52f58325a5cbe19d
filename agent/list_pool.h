// SPDX-License-Identifier: Apache-2.0
//
// The long lists of the versions that are kept, found again by what they hold: a configuration that
// goes back and forth, or a list that comes under another name, costs no second list.
#ifndef AGENT_LIST_POOL_H
#define AGENT_LIST_POOL_H

#include <unordered_map>

#include "agent/tree.h"

namespace agent {

struct ListPool {
  std::unordered_multimap<uint64_t, std::weak_ptr<const Node>> lists;
};

// What `after` holds, with lists of the pool in place of those that are equal to them; lists that
// are neither there nor in `before` join the pool. Takes time for all that a list holds in which
// anything differs from `before`: meant for large changes.
NodeRef pooled(ListPool& pool, const NodeRef& before, const NodeRef& after);

}  // namespace agent
#endif
