// SPDX-License-Identifier: Apache-2.0
//
// What a script shows of the context: an object a line, as its dump tells it on one line.
#include <algorithm>
#include <regex>

#include "exchange/pol_xml_config_internal.h"
#include "support/script.h"

namespace {

using Lines = std::vector<std::string>;

std::string on_a_line(std::string text) {
  static const std::pair<std::regex, const char*> kSteps[] = {
      {std::regex("(0x)+[0-9a-f]{9,}"), "PTR"},
      {std::regex("(VPN-list y|Y)arrow fetch time:\\s+Start:[^\n]*\n[^\n]*\n[^\n]*"), ""},
      {std::regex("\\(PTR, "), "("},
      {std::regex(" \\(PTR\\)|\\bend \n|PTR, "), ""},
      {std::regex("\\s+"), " "},
  };
  for (const auto& [what, with] : kSteps) text = std::regex_replace(text, what, with);
  const size_t start = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(start, text.find_last_not_of(' ') + 1 - start);
}

template <class Tree, class Dump>
void lists(const Tree& tree, Dump dump, Lines* lines) {
  for (auto* list = tree.first(); list != nullptr; list = tree.next(list)) {
    lines->push_back(on_a_line(PolicyTest::printed([&](t_cli_user_ctx* cli) { dump(list, cli); })));
  }
}

void sequences(t_pol_block* block, const std::string& policy, Lines* lines) {
  for (t_pol_entry& e : block->in_order) {
    lines->push_back(policy + "/" + std::to_string(e.sequence) + ": " + shown(&e));
    if (e.set.ultimate_tloc != 0) {
      lines->back() += " own TLOC " + std::to_string(e.set.ultimate_tloc);
    }
  }
  for (auto* vpn = block->fwd_vpns.first(); vpn != nullptr; vpn = block->fwd_vpns.next(vpn)) {
    lines->push_back(policy + "/" + vpn->name + ":");
    for (auto* e = vpn->entries.first(); e != nullptr; e = vpn->entries.next(e)) {
      std::string text =
          PolicyTest::printed([e](t_cli_user_ctx* cli) { pol_dump_fwd_entry(e, cli); });
      text = on_a_line(text);
      text.erase(0, text.find(' ', 6) + 1);  // its number
      if (e->fwd.sla_option != 0 || e->fwd.sla_value != 0) {
        text +=
            " SLA " + std::to_string(e->fwd.sla_option) + "/" + std::to_string(e->fwd.sla_value);
      }
      for (const t_tloc_entry& row : e->fwd.tlocs) text += " ^" + std::to_string(row.preference);
      lines->push_back(policy + "/" + vpn->name + "/" + std::to_string(e->sequence) + ": " + text);
    }
  }
}

// Nodes by their names, edges as "from -role-> to".
struct Graph {
  std::map<const void*, std::string> names;
  Lines lines;
  bool edges = false;
};

void on_node(void* arg, const t_pol_graph_node* node) {
  auto* graph = static_cast<Graph*>(arg);
  EXPECT_FALSE(graph->edges) << "nodes come first";
  std::ostringstream name;
  if (node->parent != nullptr) name << graph->names.at(node->parent) << "/";
  name << (node->name != nullptr ? node->name : "outside");
  if (node->type == POL_GRAPH_SEQUENCE) name << node->sequence;
  EXPECT_TRUE(graph->names.emplace(node->id, name.str()).second);
  std::ostringstream line;
  line << node->type << " " << (node->kind != 0 ? pol_util_type_str(node->kind) : "-") << " "
       << name.str() << " a" << node->action << " m" << std::hex << node->match_flags << " s"
       << node->set_flags << std::dec << " d" << node->direction << " n" << node->elements;
  graph->lines.push_back(line.str());
}

void on_edge(void* arg, const t_pol_graph_edge* edge) {
  auto* graph = static_cast<Graph*>(arg);
  graph->edges = true;
  std::string from = edge->from != nullptr ? graph->names.at(edge->from) : "nobody";
  graph->lines.push_back(from + " -" + edge->role + "-> " + graph->names.at(edge->to));
}

}  // namespace

void ScriptTest::graph() {
  Graph graph;
  t_pol_graph_visitor visitor = {};
  EXPECT_EQ(pol_graph_walk(nullptr, &visitor), POL_ENOCTX);
  EXPECT_EQ(pol_graph_walk(ctx, nullptr), POL_EINVAL);
  EXPECT_EQ(pol_graph_walk(ctx, &visitor), POL_OK) << "for nobody";
  visitor = {on_node, on_edge, &graph};
  EXPECT_EQ(pol_graph_walk(ctx, &visitor), POL_OK);
  for (const std::string& line : graph.lines) say(line);
}

Lines ScriptTest::state() {
  Lines lines;
  if (g_pol_ctx_p == nullptr) return lines;
  lists(ctx->site_lists, pol_dump_site_list, &lines);
  lists(ctx->vpn_lists, pol_dump_vpn_list, &lines);
  lists(ctx->tloc_lists, pol_dump_tloc_list, &lines);
  lists(ctx->color_lists, pol_dump_color_list, &lines);
  lists(ctx->pfx_lists, pol_dump_pfx_list, &lines);
  lists(ctx->app_lists, pol_dump_app_list, &lines);
  lists(ctx->fwd_pfx_lists, pol_dump_fwd_pfx_list, &lines);
  lists(ctx->fwd_pfx6_lists, pol_dump_fwd_pfx6_list, &lines);
  lists(ctx->sla_classes, pol_dump_fwd_sla_class, &lines);
  lists(ctx->policers, pol_dump_fwd_policer, &lines);
  lists(ctx->app_ids, pol_dump_fwd_app_id, &lines);
  for (uint32_t kind = POL_KIND_ROUTE; kind <= POL_KIND_CFLOWD; ++kind) {
    for (t_pol_block* b = pol_block_first(ctx, kind); b != nullptr;
         b = pol_block_next(ctx, b, kind)) {
      const std::string policy = std::string(pol_util_type_str(kind)) + ":" + b->name;
      std::string text = policy + ": sets " + std::to_string(b->sets);
      if (b->orphaned != 0) text += " orphaned";
      for (const t_pol_user& user : b->users) text += std::string(" ") + user.name;
      lines.push_back(text);
      const std::string fallback = shown(&b->default_action);
      if (fallback != "match unknown action: unknown set:") {
        lines.push_back(policy + "/default: " + fallback);
      }
      sequences(b, policy, &lines);
    }
  }
  std::string records;
  auto& cache = ctx->xml_configs;
  for (const t_pol_xml_config* c = cache.first(); c != nullptr; c = cache.next(c)) {
    records += " " + std::to_string(c->type) + c->name;
  }
  std::string queued;
  for (const t_pol_user& user : ctx->change_list) queued += std::string(" ") + user.name;
  lines.push_back("xml records:" + records);
  lines.push_back("change list:" + queued);
  return lines;
}

void ScriptTest::say_difference() {
  Lines now = state();
  // "vpn-list: v" of lists and their like, "route:p/10:" of policies.
  auto name = [](const std::string& text) {
    const size_t end = text.find(' ');
    return text.find(':') + 1 < end ? text.substr(0, end) : text.substr(0, text.find(' ', end + 1));
  };
  for (const std::string& text : now) {
    if (std::find(state_.begin(), state_.end(), text) == state_.end()) say(text);
  }
  for (const std::string& old : state_) {
    const bool there = std::any_of(
        now.begin(), now.end(), [&](const std::string& text) { return name(text) == name(old); });
    if (!there) say("gone: " + name(old));
  }
  state_ = std::move(now);
}
