/* SPDX-License-Identifier: Apache-2.0
 *
 * config_findings.h - what a valid configuration says in vain: lists that are named and not there
 * or never filled, sequences that never decide.
 */
#ifndef TOOL_CONFIG_FINDINGS_H
#define TOOL_CONFIG_FINDINGS_H

#include <string>
#include <vector>

#include "yarrow/yarrow_changes.h"

namespace polctl {

struct ConfigFinding {
  std::string path;
  std::string what;
};

/* REQUIRES: the initial batch of a subscription, and the agent's schema in this process. */
std::vector<ConfigFinding> findings_in(const t_yarrow_batch* batch);

}  // namespace polctl

#endif
