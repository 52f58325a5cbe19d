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

// A sequence, or a default action, with what is known of it.
struct PolicyRow {
  std::string vpn_list; /* "": none */
  int64_t number = ConfiguredPolicy::kDefault;
  std::string action;
  std::vector<std::string> match;
  std::vector<std::string> set;
  Decided decided;

  bool is_default() const { return number == ConfiguredPolicy::kDefault; }
  std::string number_text() const { return is_default() ? "default" : std::to_string(number); }
};

// As configured, where that is known: with values, in the configuration's words.
PolicyRow row_of(const GraphNode& node, const Clauses& clauses, int64_t number,
                 const char* vpn_list, const ConfiguredPolicy& configured) {
  PolicyRow row;
  if (vpn_list != nullptr) row.vpn_list = vpn_list;
  row.number = number;
  row.action = graph_action(node);
  const ConfiguredSequence* known = configured.find(row.vpn_list, number);
  row.match = known != nullptr ? known->match : clauses.match;
  row.set = known != nullptr ? known->set : clauses.set;
  return row;
}

std::vector<PolicyRow> rows_of(const Graph& graph, size_t policy, const ClauseTable& clauses,
                               const Counters* counters, const ConfiguredPolicy& configured) {
  const GraphNode& head = graph.nodes[policy];
  std::vector<PolicyRow> rows;
  if (!decides(head) && !configured.sequences.empty()) {
    for (const auto& [place, sequence] : configured.sequences) {
      rows.push_back(
          {place.first, place.second, sequence.action, sequence.match, sequence.set, {}});
    }
    return rows;
  }
  each_sequence(graph, policy, [&](size_t at, const char* vpn_list) {
    const GraphNode& node = graph.nodes[at];
    rows.push_back(row_of(node, clauses.of(at), node.sequence, vpn_list, configured));
  });
  if (!decides(head)) return rows;
  rows.push_back(row_of(head, clauses.of(policy), ConfiguredPolicy::kDefault, nullptr, configured));
  if (counters == nullptr) return rows;
  const Decisions decisions = counters->of({head.kind, head.name});
  for (PolicyRow& row : rows) {
    row.decided = row.is_default() ? decisions.by_default()
                                   : decisions.by_sequence(static_cast<uint32_t>(row.number));
  }
  return rows;
}

Colour colour_of(const std::string& action) {
  return action == "accept"   ? action_colour(POL_ACCEPT)
         : action == "reject" ? action_colour(POL_REJECT)
                              : Colour::Plain;
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

void write_policy_text(const Graph& graph, size_t policy, const Counters* counters,
                       const ConfiguredPolicy& configured, Output* out) {
  const GraphNode& head = graph.nodes[policy];
  ClauseTable clauses(graph);
  out->print("{} {}{}\n", graph_word(head), printable(head.name),
             head.state == GraphState::kUndefined ? " (undefined)"
             : head.state == GraphState::kUnused  ? " (unused)"
                                                  : "");
  for (const std::string& setting : configured.settings) out->print("{}\n", printable(setting));
  // Policies that are asked about routes have counts, the others their sequences in VPN lists.
  const bool routes = decides(head);
  std::vector<Table::Cell> heading = {{"sequence"}, {"action"}};
  if (!routes) heading.insert(heading.begin(), Table::Cell{"vpn-list"});
  if (routes) heading.insert(heading.end(), {{"accepted"}, {"rejected"}});
  heading.insert(heading.end(), {{"match"}, {"set"}});
  Table table(routes ? "rlrrll" : "lrlll", heading);
  const std::vector<PolicyRow> rows = rows_of(graph, policy, clauses, counters, configured);
  for (const PolicyRow& each : rows) {
    std::vector<Table::Cell> row;
    if (!routes) row.push_back({printable(each.vpn_list)});
    row.push_back({each.number_text()});
    row.push_back({each.action, colour_of(each.action)});
    if (routes) {
      const bool counted = counters != nullptr;
      row.push_back({counted ? grouped(each.decided.accepted) : ""});
      row.push_back({counted ? grouped(each.decided.rejected) : ""});
    }
    row.push_back({printable(joined(each.match, ", "))});
    row.push_back({printable(joined(each.set, ", "))});
    table.add(std::move(row));
  }
  if (!rows.empty()) table.print(out, Palette(out->fd()));
  for (const GraphNode* user : users_of(graph, policy)) {
    bool both = user->direction == POL_DIR_NONE;
    out->print("used by {}{}\n", printable(user->name),
               both ? "" : fmt::format(", {}", pol_util_dir_str(user->direction)));
  }
  for (const std::string& name : undefined_in(graph, clauses, policy)) {
    out->print("undefined: {}\n", printable(name));
  }
}

void write_policy_json(const Graph& graph, size_t policy, const Counters* counters,
                       const ConfiguredPolicy& configured, Output* out) {
  const GraphNode& head = graph.nodes[policy];
  const bool counted = counters != nullptr && decides(head);
  ClauseTable clauses(graph);
  std::vector<std::string> sequences;
  std::string by_default = "null";
  for (const PolicyRow& row : rows_of(graph, policy, clauses, counters, configured)) {
    std::string rest =
        fmt::format(R"("action":{},{},"match":{},"set":{}}})", json_string(row.action),
                    decided_json(counted, row.decided), json_array(row.match), json_array(row.set));
    if (row.is_default() && decides(head)) {
      by_default = "{" + rest;
      continue;
    }
    sequences.push_back(fmt::format(R"({{"sequence":{},"vpn-list":{},)",
                                    row.is_default() ? "null" : std::to_string(row.number),
                                    row.vpn_list.empty() ? "null" : json_string(row.vpn_list)) +
                        rest);
  }
  std::vector<std::string> users;
  for (const GraphNode* user : users_of(graph, policy)) {
    users.push_back(fmt::format(R"({{"name":{},"direction":"{}"}})", json_string(user->name),
                                pol_util_dir_str(user->direction)));
  }
  out->print(R"({{"kind":"{}","name":{},"state":"{}","settings":{},"sequences":[{}],"default":{},)",
             graph_word(head), json_string(head.name), graph_state_word(head.state),
             json_array(configured.settings), joined(sequences, ","), by_default);
  out->print(R"("users":[{}],"undefined":{}}})", joined(users, ","),
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
