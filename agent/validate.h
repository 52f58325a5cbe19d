// SPDX-License-Identifier: Apache-2.0
//
// Checking a configuration before it becomes running: what types cannot say.
#ifndef AGENT_VALIDATE_H
#define AGENT_VALIDATE_H

#include <vector>

#include "agent/changes.h"

namespace agent {

constexpr size_t kMaxFaults = 100;

// What is wrong with a configuration, one fault a line.
struct Faults {
  std::string text;
  size_t count = 0;

  void add(const std::string& path, std::string_view reason);
};

// YARROW_ERR_INVALID, and how many faults there are beyond kMaxFaults. Good without a fault.
Result faults_result(const Faults& faults);

// Checks the entries that the changes created or modified: mandatory leaves, and the schema's
// "must" conditions. `root` is the tree they lead to. A condition may look at leaves of its entry
// and of the entries around it, not at members of lists: nothing else is there when it is
// evaluated, which is what keeps the cost of a commit that of what it touches. Names every fault,
// up to kMaxFaults.
Result validate_changes(const Schema& schema, const NodeRef& root,
                        const std::vector<Change>& changes);

}  // namespace agent
#endif
