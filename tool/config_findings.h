/* SPDX-License-Identifier: Apache-2.0
 *
 * config_findings.h - what a valid configuration says in vain: lists that are named and not there
 * or never filled, members that match nothing, sequences that never decide, clauses that never act.
 *
 * Errors are what cannot have been meant; warnings what has no effect, or one more than it seems.
 */
#ifndef TOOL_CONFIG_FINDINGS_H
#define TOOL_CONFIG_FINDINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include "yarrow/yarrow_changes.h"

namespace polctl {

struct ConfigFinding {
  std::string path;
  std::string what;
  std::string expected = {}; /* empty: nothing else fits */
  bool is_error = false;
};
using ConfigFindings = std::vector<ConfigFinding>;

/* `direction` (enum pol_direction) is that in which control policies are applied; NONE: not known.
 * REQUIRES: the initial batch of a subscription, and the agent's schema in this process. */
ConfigFindings findings_in(const t_yarrow_batch* batch, uint32_t direction);

/* The parts of it. Texts and keys as the agent's paths write them. */
std::string value_text(const t_yarrow_value& value);
std::string key_text(const std::string& name);
/* What `scope` and `tag` lead to below the change's entry: "/action/set/tag". */
std::string leaf_path(const t_yarrow_change& change, const std::vector<uint32_t>& scope,
                      uint32_t tag);

/* Of a member of a site, VPN or prefix list. */
void judge_member(const t_yarrow_change& change, ConfigFindings* findings);
/* Of ranges among a data or app-route policy's matches: ports, packet lengths. */
void judge_ranges(const t_yarrow_change& change, const std::string& path, ConfigFindings* findings);

}  // namespace polctl

#endif
