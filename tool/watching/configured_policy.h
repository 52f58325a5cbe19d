/* SPDX-License-Identifier: Apache-2.0
 *
 * configured_policy.h - a policy as it is configured: of each sequence what it matches and sets, in the
 * words of set-lines.
 */
#ifndef TOOL_WATCHING_CONFIGURED_POLICY_H
#define TOOL_WATCHING_CONFIGURED_POLICY_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/agent_link.h"
#include "host/graph_model.h"

namespace polctl {

struct ConfiguredSequence {
  std::string action; /* "accept", "reject"; "": none */
  std::vector<std::string> match;
  std::vector<std::string> set; /* and whatever else it does, such as counting */
};

/* Sequences by VPN list, "" outside data and app-route policies, and number; the default action's is
 * kDefault. */
struct ConfiguredPolicy {
  static constexpr int64_t kDefault = INT64_MAX; /* the last */
  std::map<std::pair<std::string, int64_t>, ConfiguredSequence> sequences;
  std::vector<std::string> settings; /* what is outside of any sequence */

  const ConfiguredSequence* find(const std::string& vpn_list, int64_t number) const;
};

/* By kind ("data-policy") and name. */
using ConfiguredPolicies = std::map<std::pair<std::string, std::string>, ConfiguredPolicy>;

/* What is known of one; else one that says nothing. */
const ConfiguredPolicy& known_of(const ConfiguredPolicies& policies, const GraphNode& policy);

/* Where the agent keeps policies of each kind: those of a name, or for "" all. */
std::vector<std::string> policy_paths(const std::string& name);

/* Adds what the agent says of such a path; of nothing, nothing. */
void add_configured(const std::string& xml, ConfiguredPolicies* policies);

/* What an agent says of them all. Throws InputError. */
ConfiguredPolicies read_configured(ConfigSession* session, const std::string& name);

}  // namespace polctl

#endif
