/* SPDX-License-Identifier: Apache-2.0
 *
 * policy_view.h - one policy as it is configured and as the library holds it: its sequences with what they name and how often
 * they decided, its users, and what it names that is not there; and lists with who uses them.
 */
#ifndef TOOL_WATCHING_POLICY_VIEW_H
#define TOOL_WATCHING_POLICY_VIEW_H

#include <string>
#include <vector>

#include "host/counters.h"
#include "host/graph_model.h"
#include "host/output.h"
#include "tool/watching/configured_policy.h"

namespace polctl {

/* Is it a policy that routes or members are decided by? Data policies are handed on. */
bool decides(const GraphNode& node);

/* The graph's policies of that name, of whatever kind. Throws InputError, naming what is near, when
 * there is none. */
std::vector<size_t> policies_named(const Graph& graph, const std::string& name);

/* `counters` null: nobody counts. What `configured` does not have is told from the graph, by clauses
 * without their values. */
void write_policy_text(const Graph& graph, size_t policy, const Counters* counters,
                       const ConfiguredPolicy& configured, Output* out);
/* One object, without a line's end. */
void write_policy_json(const Graph& graph, size_t policy, const Counters* counters,
                       const ConfiguredPolicy& configured, Output* out);

/* Every list and object: elements where the library knows them, users, state. JSON: one a line. */
void write_lists(const Graph& graph, bool json, Output* out);

}  // namespace polctl

#endif
