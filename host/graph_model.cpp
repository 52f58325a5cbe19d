// SPDX-License-Identifier: Apache-2.0
#include "graph_model.h"

#include <fmt/format.h>

#include <unordered_map>

#include "address_text.h"
#include "input_error.h"
#include "output.h"
#include "policy/pol_context.h"
#include "policy/pol_util.h"

namespace polctl {

namespace {

struct TypeWord {
  uint32_t type;
  uint32_t kind;
  std::string_view path; /* of its configuration; the last part is its word */
};

constexpr TypeWord kWords[] = {
    {POL_GRAPH_SITE_LIST, 0, "/policy/lists/site-list"},
    {POL_GRAPH_VPN_LIST, 0, "/policy/lists/vpn-list"},
    {POL_GRAPH_TLOC_LIST, 0, "/policy/lists/tloc-list"},
    {POL_GRAPH_COLOR_LIST, 0, "/policy/lists/color-list"},
    {POL_GRAPH_PREFIX_LIST, 0, "/policy/lists/prefix-list"},
    {POL_GRAPH_APP_LIST, 0, "/policy/lists/app-list"},
    {POL_GRAPH_DATA_PREFIX_LIST, 0, "/policy/lists/data-prefix-list"},
    {POL_GRAPH_DATA_IPV6_PREFIX_LIST, 0, "/policy/lists/data-ipv6-prefix-list"},
    {POL_GRAPH_SLA_CLASS, 0, "/policy/sla-class"},
    {POL_GRAPH_POLICER, 0, "/policy/policer"},
    {POL_GRAPH_APP_ID, 0, "/policy/app-id"},
    {POL_GRAPH_POLICY, POL_KIND_ROUTE, "/policy/control-policy"},
    {POL_GRAPH_POLICY, POL_KIND_DATA, "/policy/data-policy"},
    {POL_GRAPH_POLICY, POL_KIND_PERF_ROUTE, "/policy/app-route-policy"},
    {POL_GRAPH_POLICY, POL_KIND_MEMBERSHIP, "/policy/membership-policy"},
    {POL_GRAPH_POLICY, POL_KIND_CFLOWD, "/policy/cflowd-template"},
};

const TypeWord* words_of(const GraphNode& node) {
  for (const TypeWord& row : kWords) {
    if (row.type == node.type && (row.kind == 0 || row.kind == node.kind)) return &row;
  }
  return nullptr;
}

// The library is built without exceptions, so none may pass through it: running out of memory ends
// the process here.
struct Reading {
  Graph graph;
  std::unordered_map<const void*, size_t> places;
};

// Every VPN list of a policy has a sequence 0 for its own settings, mostly without any.
bool is_empty_zero(const t_pol_graph_node& node) {
  return node.type == POL_GRAPH_SEQUENCE && node.sequence == 0 && node.match_flags == 0 &&
         node.set_flags == 0 && (node.kind == POL_KIND_DATA || node.kind == POL_KIND_PERF_ROUTE);
}

void take_node(void* arg, const t_pol_graph_node* given) noexcept {
  auto* reading = static_cast<Reading*>(arg);
  if (is_empty_zero(*given)) return;
  GraphNode node;
  node.type = given->type;
  node.kind = given->kind;
  if (given->name != nullptr) node.name = given->name;
  if (given->parent != nullptr) node.parent = reading->places.at(given->parent);
  node.sequence = given->sequence;
  node.action = given->action;
  node.match_flags = given->match_flags;
  node.set_flags = given->set_flags;
  node.direction = given->direction;
  node.elements = given->elements;
  reading->places.emplace(given->id, reading->graph.nodes.size());
  reading->graph.nodes.push_back(std::move(node));
}

void take_edge(void* arg, const t_pol_graph_edge* given) noexcept {
  auto* reading = static_cast<Reading*>(arg);
  GraphEdge edge;
  if (given->from != nullptr) edge.from = reading->places.at(given->from);
  edge.to = reading->places.at(given->to);
  edge.role = given->role;
  ++reading->graph.nodes[edge.to].users;
  reading->graph.edges.push_back(edge);
}

bool defined(const GraphNode& node, const TypeWord& words, const ConfiguredNames* configured) {
  if (configured != nullptr) {
    auto names = configured->find(words.path);
    return names != configured->end() && names->second.count(node.name) != 0;
  }
  return node.type > POL_GRAPH_PREFIX_LIST || node.elements > 0;
}

// What is configured and so little used that the library does not even know it.
void add_unknown(const ConfiguredNames& configured, Graph* graph) {
  ConfiguredNames known;
  for (const GraphNode& node : graph->nodes) {
    if (const TypeWord* words = words_of(node)) known[words->path].insert(node.name);
  }
  for (const TypeWord& words : kWords) {
    auto names = configured.find(words.path);
    if (names == configured.end()) continue;
    for (const std::string& name : names->second) {
      if (known[words.path].count(name) != 0) continue;
      GraphNode node;
      node.type = words.type;
      node.kind = words.kind;
      node.name = name;
      graph->nodes.push_back(std::move(node));
    }
  }
}

}  // namespace

size_t Graph::policy_of(size_t node) const {
  while (nodes[node].parent != SIZE_MAX) node = nodes[node].parent;
  return node;
}

Graph read_graph(const ConfiguredNames* configured) {
  Reading reading;
  t_pol_graph_visitor visitor = {take_node, take_edge, &reading};
  if (pol_graph_walk(g_pol_ctx_p, &visitor) != POL_OK) {
    throw InputError("polctl: error: there is no policy to draw");
  }
  Graph graph = std::move(reading.graph);
  if (configured != nullptr) add_unknown(*configured, &graph);
  bool policies_used = false;
  for (const GraphNode& node : graph.nodes) {
    policies_used = policies_used || (node.type == POL_GRAPH_POLICY && node.users > 0);
  }
  for (GraphNode& node : graph.nodes) {
    const TypeWord* words = words_of(node);
    if (words == nullptr) continue;
    bool matters = node.type != POL_GRAPH_POLICY || policies_used;
    if (!defined(node, *words, configured)) {
      node.state = GraphState::kUndefined;
    } else if (node.users == 0 && matters) {
      node.state = GraphState::kUnused;
    }
  }
  return graph;
}

std::vector<std::string> absent_objects(const ConfiguredNames* configured) {
  std::vector<std::string> absent;
  for (const GraphNode& node : read_graph(configured).nodes) {
    bool list = node.type == POL_GRAPH_VPN_LIST || node.type == POL_GRAPH_TLOC_LIST ||
                (node.type >= POL_GRAPH_APP_LIST && node.type <= POL_GRAPH_POLICER);
    bool policy = node.type == POL_GRAPH_POLICY &&
                  (node.kind == POL_KIND_DATA || node.kind == POL_KIND_PERF_ROUTE ||
                   node.kind == POL_KIND_CFLOWD);
    if (node.state != GraphState::kUndefined || !(list || policy)) continue;
    absent.push_back(fmt::format("{} {}", graph_word(node), in_quotes(node.name)));
  }
  return absent;
}

const char* graph_word(const GraphNode& node) {
  if (const TypeWord* words = words_of(node)) {
    return words->path.substr(words->path.rfind('/') + 1).data();
  }
  switch (node.type) {
    case POL_GRAPH_POLICY_VPN:
      return "vpn-list of a policy";
    case POL_GRAPH_SEQUENCE:
      return "sequence";
    case POL_GRAPH_USER:
      return "user";
    default:
      return "list user";
  }
}

std::string graph_title(const Graph& graph, size_t at) {
  const GraphNode& node = graph.nodes[at];
  std::string own = node.type == POL_GRAPH_SEQUENCE ? std::to_string(node.sequence) : node.name;
  return node.parent == SIZE_MAX ? own : graph_title(graph, node.parent) + "/" + own;
}

const char* graph_state_word(GraphState state) {
  return state == GraphState::kUndefined ? "undefined"
         : state == GraphState::kUnused  ? "unused"
                                         : "fine";
}

bool graph_role_sets(std::string_view role) {
  return role == "set" || role == "policer" || role == "SLA class";
}

std::string graph_action(const GraphNode& node) {
  if (node.action != 0) return pol_util_action_str(node.action);
  struct {
    uint32_t flag;
    const char* word;
  } const words[] = {{POL_FWD_SET_F_TLOC, "tloc"},
                     {POL_FWD_SET_F_TLOC_LIST, "tloc-list"},
                     {POL_FWD_SET_F_SERVICE, "service"},
                     {POL_FWD_SET_F_POLICER, "policer"},
                     {POL_FWD_SET_F_SLA_CLASS, "sla-class"}};
  std::vector<std::string> set;
  if (node.kind == POL_KIND_DATA || node.kind == POL_KIND_PERF_ROUTE) {
    for (const auto& row : words) {
      if ((node.set_flags & row.flag) != 0) set.emplace_back(row.word);
    }
  }
  return joined(set, ", ");
}

}  // namespace polctl
