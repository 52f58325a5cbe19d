// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/policy_view.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/near_word.h"
#include "policy/pol_util.h"
#include "tool/flag_words.h"
#include "tool/json_line.h"
#include "tool/terminal.h"

namespace polctl {

bool decides(const GraphNode& node) {
  return node.type == POL_GRAPH_POLICY &&
         (node.kind == POL_KIND_ROUTE || node.kind == POL_KIND_MEMBERSHIP);
}

namespace {

// Only these are asked about routes; what others decide the library does not see.
struct Clauses {
  std::vector<std::string> match;
  std::vector<std::string> set;
  std::vector<std::string> undefined;
};

// What each node of a policy says, by the node: single values by their word, lists by their name.
class ClauseTable {
 public:
  explicit ClauseTable(const Graph& graph) : graph_(graph), rows_(graph.nodes.size()) {
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
      const GraphNode& node = graph.nodes[i];
      bool route = node.kind == POL_KIND_ROUTE || node.kind == POL_KIND_MEMBERSHIP;
      if (!route || (node.type != POL_GRAPH_SEQUENCE && node.type != POL_GRAPH_POLICY)) continue;
      single_match_words(node.match_flags, &rows_[i].match);
      single_set_words(node.set_flags, &rows_[i].set);
    }
    for (const GraphEdge& edge : graph.edges) add(edge);
  }
  const Clauses& of(size_t node) const { return rows_[node]; }

 private:
  void add(const GraphEdge& edge) {
    const GraphNode& to = graph_.nodes[edge.to];
    if (edge.from == SIZE_MAX || to.type == POL_GRAPH_POLICY) return;
    Clauses& row = rows_[edge.from];
    std::string_view role = edge.role;
    std::string name = fmt::format("{} {}", graph_word(to), to.name);
    if (to.state == GraphState::kUndefined) row.undefined.push_back(name);
    for (const char* which : {"source", "destination", "DNS", "SaaS"}) {
      if (role.starts_with(which)) name = fmt::format("{} {}", which, name);
    }
    (graph_role_sets(role) ? row.set : row.match).push_back(std::move(name));
  }

  const Graph& graph_;
  std::vector<Clauses> rows_;
};

// The nodes inside a policy follow it.
template <typename Visit>
void each_sequence(const Graph& graph, size_t policy, Visit visit) {
  const char* vpn_list = nullptr;
  for (size_t i = policy + 1; i < graph.nodes.size() && graph.nodes[i].parent != SIZE_MAX; ++i) {
    const GraphNode& node = graph.nodes[i];
    if (node.type == POL_GRAPH_POLICY_VPN) vpn_list = node.name.c_str();
    if (node.type == POL_GRAPH_SEQUENCE) visit(i, vpn_list);
  }
}

std::vector<std::string> undefined_in(const Graph& graph, const ClauseTable& clauses,
                                      size_t policy) {
  std::vector<std::string> all = clauses.of(policy).undefined;
  auto take = [&](size_t at, const char* /*vpn_list*/) {
    const std::vector<std::string>& more = clauses.of(at).undefined;
    all.insert(all.end(), more.begin(), more.end());
  };
  each_sequence(graph, policy, take);
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  return all;
}

std::vector<const GraphNode*> users_of(const Graph& graph, size_t policy) {
  std::vector<const GraphNode*> users;
  for (const GraphEdge& edge : graph.edges) {
    if (edge.to == policy && edge.from != SIZE_MAX) users.push_back(&graph.nodes[edge.from]);
  }
  return users;
}

std::string count_text(bool counted, uint64_t count) {
  return counted ? grouped(count) : std::string();
}

std::string decided_json(bool counted, const Decided& decided) {
  if (!counted) return R"("accepted":null,"rejected":null)";
  return fmt::format(R"("accepted":{},"rejected":{})", decided.accepted, decided.rejected);
}

bool is_list(const GraphNode& node) { return node.type <= POL_GRAPH_APP_ID; }
bool has_elements(const GraphNode& node) { return node.type <= POL_GRAPH_PREFIX_LIST; }

}  // namespace

std::vector<size_t> policies_named(const Graph& graph, const std::string& name) {
  std::vector<size_t> found;
  std::vector<std::string> names;
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    if (graph.nodes[i].type != POL_GRAPH_POLICY) continue;
    names.push_back(graph.nodes[i].name);
    if (names.back() == name) found.push_back(i);
  }
  if (!found.empty()) return found;
  std::vector<std::string> near = near_words(name, names);
  throw InputError(fmt::format("polctl: error: no policy {}{} (expected the name of a policy)",
                               in_quotes(name),
                               near.empty() ? "" : ", did you mean " + near.front() + "?"));
}

void write_policy_text(const Graph& graph, size_t policy, const Counters* counters, Output* out) {
  const GraphNode& head = graph.nodes[policy];
  const bool counted = counters != nullptr && decides(head);
  const Decisions decisions = counted ? counters->of({head.kind, head.name}) : Decisions();
  ClauseTable clauses(graph);
  out->print("{} {}{}\n", graph_word(head), printable(head.name),
             head.state == GraphState::kUndefined ? " (undefined)"
             : head.state == GraphState::kUnused  ? " (unused)"
                                                  : "");
  // Policies that are asked about routes have counts, the others their sequences in VPN lists.
  const bool routes = decides(head);
  Table table(routes ? "rlrrll" : "lrlll",
              routes ? std::vector<Table::Cell>{{"sequence"},
                                                {"action"},
                                                {"accepted"},
                                                {"rejected"},
                                                {"match"},
                                                {"set"}}
                     : std::vector<Table::Cell>{
                           {"vpn-list"}, {"sequence"}, {"action"}, {"match"}, {"set"}});
  auto add = [&](size_t at, const char* vpn_list, const std::string& number,
                 const Decided& decided) {
    const GraphNode& node = graph.nodes[at];
    std::vector<Table::Cell> row;
    if (!routes) row.push_back({vpn_list != nullptr ? printable(vpn_list) : ""});
    row.push_back({number});
    row.push_back({graph_action(node), action_colour(node.action)});
    if (routes) row.push_back({count_text(counted, decided.accepted)});
    if (routes) row.push_back({count_text(counted, decided.rejected)});
    row.push_back({printable(joined(clauses.of(at).match, ", "))});
    row.push_back({printable(joined(clauses.of(at).set, ", "))});
    table.add(std::move(row));
  };
  each_sequence(graph, policy, [&](size_t at, const char* vpn_list) {
    uint32_t sequence = graph.nodes[at].sequence;
    add(at, vpn_list, std::to_string(sequence), decisions.by_sequence(sequence));
  });
  if (routes) add(policy, nullptr, "default", decisions.by_default());
  table.print(out, Palette(out->fd()));
  for (const GraphNode* user : users_of(graph, policy)) {
    bool both = user->direction == POL_DIR_NONE;
    out->print("used by {}{}\n", printable(user->name),
               both ? "" : fmt::format(", {}", pol_util_dir_str(user->direction)));
  }
  for (const std::string& name : undefined_in(graph, clauses, policy)) {
    out->print("undefined: {}\n", printable(name));
  }
}

void write_policy_json(const Graph& graph, size_t policy, const Counters* counters, Output* out) {
  const GraphNode& head = graph.nodes[policy];
  const bool counted = counters != nullptr && decides(head);
  const Decisions decisions = counted ? counters->of({head.kind, head.name}) : Decisions();
  ClauseTable clauses(graph);
  out->print(R"({{"kind":"{}","name":{},"state":"{}","sequences":[)", graph_word(head),
             json_string(head.name), graph_state_word(head.state));
  const char* separator = "";
  each_sequence(graph, policy, [&](size_t at, const char* vpn_list) {
    const GraphNode& node = graph.nodes[at];
    out->print(R"({}{{"sequence":{},"vpn-list":{},"action":{},{},"match":{},"set":{}}})", separator,
               node.sequence, vpn_list != nullptr ? json_string(vpn_list) : "null",
               json_string(graph_action(node)),
               decided_json(counted, decisions.by_sequence(node.sequence)),
               json_array(clauses.of(at).match), json_array(clauses.of(at).set));
    separator = ",";
  });
  out->write(R"(],"default":)");
  if (decides(head)) {
    out->print(R"({{"action":{},{},"set":{}}})", json_string(graph_action(head)),
               decided_json(counted, decisions.by_default()), json_array(clauses.of(policy).set));
  } else {
    out->write("null");
  }
  std::vector<std::string> users;
  for (const GraphNode* user : users_of(graph, policy)) {
    users.push_back(fmt::format(R"({{"name":{},"direction":"{}"}})", json_string(user->name),
                                pol_util_dir_str(user->direction)));
  }
  out->print(R"(,"users":[{}],"undefined":{}}})", joined(users, ","),
             json_array(undefined_in(graph, clauses, policy)));
}

void write_lists(const Graph& graph, bool json, Output* out) {
  Table table("llrrl", {{"type"}, {"name"}, {"elements"}, {"users"}, {"state"}});
  for (const GraphNode& node : graph.nodes) {
    if (!is_list(node)) continue;
    if (json) {
      out->print(R"({{"type":"{}","name":{},"elements":{},"users":{},"state":"{}"}})",
                 graph_word(node), json_string(node.name),
                 has_elements(node) ? std::to_string(node.elements) : "null", node.users,
                 graph_state_word(node.state));
      out->write("\n");
      continue;
    }
    bool fine = node.state == GraphState::kFine;
    table.add({{graph_word(node)},
               {printable(node.name)},
               {has_elements(node) ? grouped(node.elements) : ""},
               {grouped(node.users)},
               {fine ? "" : graph_state_word(node.state), fine ? Colour::Plain : Colour::Yellow}});
  }
  if (!json) table.print(out, Palette(out->fd()));
}

}  // namespace polctl
