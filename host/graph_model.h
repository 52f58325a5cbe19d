/* SPDX-License-Identifier: Apache-2.0
 *
 * graph_model.h - what uses what, with what is undefined and what is unused.
 */
#ifndef HOST_GRAPH_MODEL_H
#define HOST_GRAPH_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config_mirror.h"
#include "policy/pol_graph.h"

namespace polctl {

enum class GraphState {
  kFine,
  kUndefined, /* used, but not configured */
  kUnused     /* configured, but used by nobody */
};

struct GraphNode {
  uint32_t type = 0; /* enum pol_graph_type */
  uint32_t kind = 0; /* enum pol_kind */
  std::string name;
  size_t parent = SIZE_MAX; /* index of the policy or its VPN list that this is in */
  uint32_t sequence = 0;
  uint32_t action = 0;
  uint32_t match_flags = 0;
  uint32_t set_flags = 0;
  uint32_t direction = 0;
  uint32_t elements = 0;
  uint32_t users = 0; /* edges that lead here */
  GraphState state = GraphState::kFine;
};

struct GraphEdge {
  size_t from = SIZE_MAX; /* SIZE_MAX: a sequence of a policy that is gone */
  size_t to = 0;
  const char* role = "";
};

struct Graph {
  std::vector<GraphNode> nodes; /* what is in a policy follows it */
  std::vector<GraphEdge> edges;

  size_t policy_of(size_t node) const;
};

/* Reads the context's graph. `configured` says what is configured; without it (null), a list without
 * elements counts as undefined and everything else as defined. A policy counts as unused only where
 * somebody uses another. */
Graph read_graph(const ConfiguredNames* configured);

/* What policies name that is not configured and that the library's worker would ask the agent for,
 * again and again: `vpn-list "corp"`. */
std::vector<std::string> absent_objects(const ConfiguredNames* configured);

/* "prefix-list", "data-policy", ...: the words of the configuration. */
const char* graph_word(const GraphNode& node);

/* What a sequence is called: "branch/10", "corp/vpns/10". */
std::string graph_title(const Graph& graph, size_t node);

/* "fine", "undefined", "unused". */
const char* graph_state_word(GraphState state);

/* Whether what is used in that role is set, rather than matched. */
bool graph_role_sets(std::string_view role);

/* "accept", "reject"; of a data or app-route policy's sequence what it sets: "tloc-list, policer". */
std::string graph_action(const GraphNode& node);

}  // namespace polctl

#endif
