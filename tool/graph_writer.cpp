// SPDX-License-Identifier: Apache-2.0
//
// A graph as text, as JSON and for Graphviz. There a policy is one table with a row a sequence, and
// edges start at rows: policies with many sequences stay small, and lists stand once at the right.
#include "graph_writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "host/address_text.h"
#include "host/graph_model.h"
#include "json_line.h"
#include "policy/pol_util.h"

namespace polctl {

namespace {

constexpr const char* kInk = "#37474f";
constexpr const char* kSetInk = "#1565c0";
constexpr const char* kGrey = "#b0bec5";
constexpr const char* kRed = "#c62828";

constexpr size_t kManyRows = 60;  // sequences; more make the picture taller than a screen or two

struct Group {
  uint32_t type;
  const char* title;
  const char* fill;
};

constexpr Group kGroups[] = {
    {POL_GRAPH_SITE_LIST, "site lists", "#f1f8e9"},
    {POL_GRAPH_VPN_LIST, "VPN lists", "#e8eaf6"},
    {POL_GRAPH_TLOC_LIST, "TLOC lists", "#e1f5fe"},
    {POL_GRAPH_COLOR_LIST, "color lists", "#e1f5fe"},
    {POL_GRAPH_PREFIX_LIST, "prefix lists", "#f1f8e9"},
    {POL_GRAPH_APP_LIST, "application lists", "#fff8e1"},
    {POL_GRAPH_DATA_PREFIX_LIST, "data prefix lists", "#f1f8e9"},
    {POL_GRAPH_DATA_IPV6_PREFIX_LIST, "data IPv6 prefix lists", "#f1f8e9"},
    {POL_GRAPH_SLA_CLASS, "SLA classes", "#fff8e1"},
    {POL_GRAPH_POLICER, "policers", "#fff8e1"},
    {POL_GRAPH_APP_ID, "application ids", "#fff8e1"},
};

// For HTML-like labels; also keeps quotes and backslashes out of attributes.
std::string html(std::string_view text) {
  std::string safe;
  for (char c : printable(text)) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      case '\\':
        safe += "&#92;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

class Dot {
 public:
  Dot(const Graph& graph, Output* out) : graph_(graph), out_(*out) {}

  void write() {
    place_policies();
    // Many policies need room for their lines to fan out in.
    double between = 1.2 + static_cast<double>(rows_) / 50;
    out_.print(
        "digraph policy {{\n"
        "  rankdir=LR; ranksep={:.1f}; nodesep=0.12; newrank=true; outputorder=edgesfirst;\n"
        "  fontname=\"Helvetica\"; fontsize=12; bgcolor=white;\n"
        "  node [fontname=\"Helvetica\", fontsize=11, shape=box, style=\"rounded,filled\",\n"
        "        height=0.25, margin=\"0.1,0.04\"];\n"
        "  edge [arrowsize=0.6, penwidth=0.9];\n",
        std::min(between, 6.0));
    users();
    for (size_t i = 0; i < graph_.nodes.size(); ++i) {
      if (is_policy(i)) policy(i);
    }
    for (const Group& row : kGroups) group(row);
    column("policies", [this](size_t at) { return is_policy(at) && !right_[at]; });
    column("objects", [this](size_t at) { return graph_.nodes[at].type < POL_GRAPH_POLICY; });
    column("more policies", [this](size_t at) { return is_policy(at) && right_[at]; });
    edges();
    out_.write("}\n");
  }

 private:
  // Attributes that say how a node is.
  static std::string look(const GraphNode& node, const char* fill) {
    switch (node.state) {
      case GraphState::kUndefined:
        return fmt::format(
            "style=\"rounded,dashed,filled\", fillcolor=\"#ffebee\", color=\"{0}\", "
            "fontcolor=\"{0}\", penwidth=1.6",
            kRed);
      case GraphState::kUnused:
        return fmt::format("fillcolor=\"#f5f5f5\", color=\"{}\", fontcolor=\"#90a4ae\"", kGrey);
      default:
        return fmt::format("fillcolor=\"{}\", color=\"{}\"", fill, kInk);
    }
  }

  static std::string note(const GraphNode& node) {
    if (node.state == GraphState::kUndefined) return " (undefined)";
    if (node.state == GraphState::kUnused) return " (unused)";
    return node.elements > 0 ? fmt::format(" ({})", node.elements) : "";
  }

  bool is_policy(size_t at) const { return graph_.nodes[at].type == POL_GRAPH_POLICY; }

  // Few policies stand left of what they use; of many the second half stands right of it.
  void place_policies() {
    right_.assign(graph_.nodes.size(), false);
    for (const GraphNode& node : graph_.nodes) rows_ += node.type == POL_GRAPH_SEQUENCE ? 1 : 0;
    if (rows_ < kManyRows) return;
    size_t before = 0;
    for (size_t i = 0; i < graph_.nodes.size(); ++i) {
      right_[i] = is_policy(i) ? before * 2 >= rows_ : right_[graph_.policy_of(i)];
      before += graph_.nodes[i].type == POL_GRAPH_SEQUENCE ? 1 : 0;
    }
  }

  // Stand under each other, whether or not an edge leads to them.
  template <typename Test>
  void column(const char* what, Test test) {
    out_.print("  {{ rank=same; /* {} */", what);
    for (size_t i = 0; i < graph_.nodes.size(); ++i) {
      if (test(i)) out_.print(" n{};", i);
    }
    out_.write(" }\n");
  }

  void users() {
    for (size_t i = 0; i < graph_.nodes.size(); ++i) {
      const GraphNode& node = graph_.nodes[i];
      if (node.type != POL_GRAPH_USER && node.type != POL_GRAPH_LIST_USER) continue;
      std::string name = node.type == POL_GRAPH_USER ? node.name : "outside user";
      if (node.direction != POL_DIR_NONE) {
        name += fmt::format(" ({})", pol_util_dir_str(node.direction));
      }
      out_.print("  n{} [label=<{}>, fillcolor=\"#eceff1\", color=\"{}\"];\n", i, html(name), kInk);
    }
  }

  void policy(size_t at) {
    const GraphNode& node = graph_.nodes[at];
    bool dead = node.state == GraphState::kUndefined;
    bool idle = node.state == GraphState::kUnused;
    const char* ink = dead ? kRed : idle ? kGrey : kInk;
    out_.print(
        "  n{} [shape=plain, style=\"\", fontcolor=\"{}\", label=<<table border=\"{}\" "
        "color=\"{}\"{} cellborder=\"0\" cellspacing=\"0\" cellpadding=\"3\" bgcolor=\"{}\">\n",
        at,
        dead   ? kRed
        : idle ? "#90a4ae"
               : "black",
        dead ? 2 : 1, ink, dead ? " style=\"dashed\"" : "", dead ? "#ffebee" : "white");
    out_.print(
        "    <tr><td port=\"p{}\" bgcolor=\"{}\" align=\"left\" colspan=\"2\">{} "
        "<b>{}</b>{}</td></tr>\n",
        at,
        dead   ? "#ffcdd2"
        : idle ? "#eceff1"
               : "#cfd8dc",
        graph_word(node), html(node.name),
        dead   ? " (undefined)"
        : idle ? " (unused)"
               : "");
    for (size_t i = at + 1; i < graph_.nodes.size() && graph_.nodes[i].parent != SIZE_MAX; ++i) {
      row(i);
    }
    out_.write("  </table>>];\n");
  }

  void row(size_t at) {
    const GraphNode& node = graph_.nodes[at];
    if (node.type == POL_GRAPH_POLICY_VPN) {
      out_.print(
          "    <tr><td port=\"p{}\" bgcolor=\"#e8eaf6\" align=\"left\" colspan=\"2\">"
          "vpn-list {}</td></tr>\n",
          at, html(node.name));
      return;
    }
    std::string action = graph_action(node);
    const char* ink = node.action == POL_REJECT   ? "#8d6e63"
                      : node.action == POL_ACCEPT ? "#2e7d32"
                                                  : kSetInk;
    std::string policy = html(graph_.nodes[graph_.policy_of(at)].name);
    std::string port = fmt::format(" port=\"p{}\"", at);
    out_.print("    <tr><td{} align=\"left\"><font color=\"#78909c\">{}/</font>{}</td>",
               right_[at] ? port : "", policy, node.sequence);
    out_.print("<td{} align=\"left\"><font color=\"{}\">{}</font></td></tr>\n",
               right_[at] ? "" : port, ink, action.empty() ? " " : action);
  }

  void group(const Group& group) {
    bool any = false;
    for (size_t i = 0; i < graph_.nodes.size(); ++i) {
      const GraphNode& node = graph_.nodes[i];
      if (node.type != group.type) continue;
      if (!any) {
        out_.print(
            "  subgraph cluster_{} {{ label=\"{}\"; style=\"rounded\"; color=\"#cfd8dc\"; "
            "fontcolor=\"#607d8b\"; margin=6;\n",
            group.type, group.title);
      }
      any = true;
      out_.print("    n{} [label=<{}{}>, {}];\n", i, html(node.name), note(node),
                 look(node, group.fill));
    }
    if (any) out_.write("  }\n");
  }

  std::string end_of(size_t at) const {
    size_t policy = graph_.policy_of(at);
    if (graph_.nodes[policy].type != POL_GRAPH_POLICY) return fmt::format("n{}", at);
    return fmt::format("n{}:p{}", policy, at);
  }

  void edges() {
    // A row that uses one list in several roles has one line to it.
    std::map<std::pair<size_t, size_t>, std::vector<std::string>> lines;
    for (const GraphEdge& edge : graph_.edges) lines[{edge.from, edge.to}].emplace_back(edge.role);
    bool gone = false;
    for (const auto& [ends, roles] : lines) {
      const GraphNode& to = graph_.nodes[ends.second];
      bool dead = to.state == GraphState::kUndefined;
      bool set = std::all_of(roles.begin(), roles.end(),
                             [](const auto& role) { return graph_role_sets(role); });
      std::string from = ends.first == SIZE_MAX ? "gone" : end_of(ends.first);
      gone = gone || ends.first == SIZE_MAX;
      const char* ink = dead ? kRed : set ? kSetInk : "#90a4ae";
      std::string look = fmt::format("color=\"{}\"{}, tooltip=\"{}\"", ink,
                                     dead ? ", style=dashed" : "", joined(roles, ", "));
      bool from_right = ends.first != SIZE_MAX && right_[ends.first];
      if (from_right || right_[ends.second]) {
        out_.print("  {}:e -> {}:w [dir=back, {}];\n", end_of(ends.second), from, look);
      } else {
        out_.print("  {}:e -> {}:w [{}];\n", from, end_of(ends.second), look);
      }
    }
    if (gone)
      out_.print("  gone [label=\"deleted sequence\", color=\"{0}\", fontcolor=\"{0}\"];\n", kRed);
  }

  const Graph& graph_;
  Output& out_;
  size_t rows_ = 0;         /* sequences, in all */
  std::vector<bool> right_; /* by node: stands right of what it uses */
};

// "prefix-list reserved", "data-policy corp/corporate/10".
std::string full_title(const Graph& graph, size_t at) {
  if (at == SIZE_MAX) return "a sequence of a policy that is gone";
  size_t policy = graph.policy_of(at);
  return printable(fmt::format("{} {}", graph_word(graph.nodes[policy]), graph_title(graph, at)));
}

}  // namespace

void write_graph_dot(const Graph& graph, Output* out) { Dot(graph, out).write(); }

void write_graph_json(const Graph& graph, Output* out) {
  out->write("{\"nodes\":[\n");
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    const GraphNode& node = graph.nodes[i];
    out->print("{{\"id\":{},\"type\":\"{}\"", i,
               node.type == POL_GRAPH_POLICY_VPN ? "policy-vpn-list" : graph_word(node));
    if (node.parent != SIZE_MAX) out->print(",\"in\":{}", node.parent);
    if (node.type == POL_GRAPH_SEQUENCE) {
      out->print(",\"sequence\":{},\"action\":{}", node.sequence, json_string(graph_action(node)));
    } else {
      out->print(",\"name\":{}", json_string(node.name));
    }
    if (node.type == POL_GRAPH_USER) {
      out->print(",\"direction\":{}", json_string(pol_util_dir_str(node.direction)));
    }
    if (node.elements > 0) out->print(",\"elements\":{}", node.elements);
    if (node.state != GraphState::kFine)
      out->print(",\"state\":\"{}\"", graph_state_word(node.state));
    out->write(i + 1 < graph.nodes.size() ? "},\n" : "}\n");
  }
  out->write("],\"edges\":[\n");
  for (size_t i = 0; i < graph.edges.size(); ++i) {
    const GraphEdge& edge = graph.edges[i];
    std::string from = edge.from == SIZE_MAX ? "null" : std::to_string(edge.from);
    out->print("{{\"from\":{},\"to\":{},\"role\":{}}}{}\n", from, edge.to, json_string(edge.role),
               i + 1 < graph.edges.size() ? "," : "");
  }
  out->write("]}\n");
}

void write_graph_text(const Graph& graph, Output* out) {
  std::vector<std::vector<std::string>> uses(graph.nodes.size());
  std::vector<std::vector<size_t>> used_by(graph.nodes.size());
  for (const GraphEdge& edge : graph.edges) {
    used_by[edge.to].push_back(edge.from);
    if (edge.from == SIZE_MAX) continue;
    const GraphNode& to = graph.nodes[edge.to];
    uses[edge.from].push_back(
        printable(fmt::format("{} {} {}{}", edge.role, graph_word(to), to.name,
                              to.state == GraphState::kUndefined ? " (undefined)" : "")));
  }
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    const GraphNode& node = graph.nodes[i];
    std::string name = printable(node.name);
    switch (node.type) {
      case POL_GRAPH_POLICY:
        out->print("{} {}", graph_word(node), name);
        for (size_t user : used_by[i]) out->print(" <- {}", printable(graph.nodes[user].name));
        break;
      case POL_GRAPH_POLICY_VPN:
        out->print("  vpn-list {}", name);
        break;
      case POL_GRAPH_SEQUENCE:
        out->print("    {:<5} {}", node.sequence, graph_action(node));
        break;
      default:
        continue;
    }
    bool heads = node.type != POL_GRAPH_SEQUENCE;
    if (node.type == POL_GRAPH_POLICY_VPN) uses[i].clear();  // that is the list it is named after
    if (heads && node.state == GraphState::kUndefined) out->write(" (undefined)");
    out->write("\n");
    for (const std::string& use : uses[i]) out->print("            {}\n", use);
  }
  for (GraphState state : {GraphState::kUndefined, GraphState::kUnused}) {
    bool any = false;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
      if (graph.nodes[i].state != state) continue;
      if (!any) out->print("{}\n", graph_state_word(state));
      any = true;
      out->print("  {}\n", full_title(graph, i));
      if (state == GraphState::kUnused) continue;
      for (size_t user : used_by[i]) out->print("    used by {}\n", full_title(graph, user));
    }
  }
}

}  // namespace polctl
