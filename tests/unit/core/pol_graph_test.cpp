// SPDX-License-Identifier: Apache-2.0
#include <map>
#include <sstream>

#include "support/policy_fixture.h"

namespace {

struct Graph {
  std::map<const void*, std::string> names;
  std::vector<std::string> nodes;
  std::vector<std::string> edges;
};

const char* kind_of(uint32_t kind) { return kind != 0 ? pol_util_type_str(kind) : "-"; }

void on_node(void* arg, const t_pol_graph_node* node) {
  auto* graph = static_cast<Graph*>(arg);
  EXPECT_TRUE(graph->edges.empty()) << "nodes come first";
  std::ostringstream name;
  if (node->parent != nullptr) name << graph->names.at(node->parent) << "/";
  name << (node->name != nullptr ? node->name : "outside");
  if (node->type == POL_GRAPH_SEQUENCE) name << node->sequence;
  EXPECT_TRUE(graph->names.emplace(node->id, name.str()).second);
  std::ostringstream line;
  line << node->type << " " << kind_of(node->kind) << " " << name.str() << " a" << node->action
       << " m" << std::hex << node->match_flags << " s" << node->set_flags << std::dec << " d"
       << node->direction << " n" << node->elements;
  graph->nodes.push_back(line.str());
}

void on_edge(void* arg, const t_pol_graph_edge* edge) {
  auto* graph = static_cast<Graph*>(arg);
  std::string from = edge->from != nullptr ? graph->names.at(edge->from) : "nobody";
  graph->edges.push_back(from + " -" + edge->role + "-> " + graph->names.at(edge->to));
}

class GraphTest : public PolicyTest {
 protected:
  Graph walk() {
    Graph graph;
    t_pol_graph_visitor visitor = {};
    EXPECT_EQ(pol_graph_walk(nullptr, &visitor), POL_ENOCTX);
    EXPECT_EQ(pol_graph_walk(ctx, nullptr), POL_EINVAL);
    EXPECT_EQ(pol_graph_walk(ctx, &visitor), POL_OK) << "for nobody";
    visitor = {on_node, on_edge, &graph};
    EXPECT_EQ(pol_graph_walk(ctx, &visitor), POL_OK);
    return graph;
  }
};

using Lines = std::vector<std::string>;

TEST_F(GraphTest, EdgesOfRoutePoliciesAreTheirClausesAndUsers) {
  pol_site_list_add_entry(ctx, "hubs", 1, 9);
  pol_vpn_list_add_entry(ctx, "vpns", 1, 2);
  pol_vpn_list_add_entry(ctx, "vpns", 5, 5);
  t_pol_block* policy = block("P");
  t_pol_entry* ten = entry(policy, 10);
  pol_entry_match_site_list_add(ctx, ten, "hubs", &changed);
  pol_entry_match_vpn_list_add(ctx, ten, "vpns", &changed);
  pol_entry_set_add(ctx, ten);
  pol_entry_set_vpn_list_add(ctx, ten, "vpns", &changed);
  pol_entry_set_tloc_list_add(ctx, ten, "absent", &changed);
  t_pol_user* user = add_user("U", "P", nullptr);
  t_pol_list_registration record = {};
  snprintf(record.name, sizeof record.name, "hubs");
  record.list_type = POL_LIST_SITE;
  t_pol_list_user* outside = pol_list_register(&record);

  Graph graph = walk();
  EXPECT_EQ(graph.nodes, (Lines{"1 - hubs a0 m0 s0 d0 n1", "2 - vpns a0 m0 s0 d0 n2",
                                "3 - absent a0 m0 s0 d0 n0", "12 route P a2 m0 s0 d0 n0",
                                "14 route P/10 a1 m201 s30 d0 n0", "15 route U a0 m0 s0 d2 n0",
                                "16 - outside a0 m0 s0 d0 n0"}));
  EXPECT_EQ(graph.edges, (Lines{"P/10 -match-> hubs", "outside -user-> hubs", "P/10 -match-> vpns",
                                "P/10 -set-> vpns", "P/10 -set-> absent", "U -user-> P"}));
  pol_list_unregister(outside);
  pol_unregister(&user);
}

TEST_F(GraphTest, EveryRoleOfAForwardingSequenceIsAnEdgeOfItsOwn) {
  uint32_t kind = POL_KIND_PERF_ROUTE;
  block("P", kind);
  pol_fwd_vpn_find_or_create(ctx, "P", kind, "V");
  t_pol_entry* seven = pol_fwd_entry_find_or_create(ctx, "P", kind, "V", 7);
  pol_fwd_entry_app_list_upd(ctx, "P", kind, "V", 7, "A");
  pol_fwd_entry_saas_app_list_upd(ctx, "P", kind, "V", 7, "A");
  pol_fwd_entry_dst_pfx_upd(ctx, "P", kind, "V", 7, "D");
  pol_fwd_entry_src_pfx6_upd(ctx, "P", kind, "V", 7, "S");
  pol_fwd_entry_app_id_upd(ctx, "P", kind, "V", 7, "I");
  pol_fwd_entry_sla_class_add(ctx, seven, "C", 0, 0, &changed);

  Graph graph = walk();
  EXPECT_EQ(graph.nodes,
            (Lines{"2 - V a0 m0 s0 d0 n0", "6 - A a0 m0 s0 d0 n0", "7 - D a0 m0 s0 d0 n0",
                   "8 - S a0 m0 s0 d0 n0", "9 - C a0 m0 s0 d0 n0", "11 - I a0 m0 s0 d0 n0",
                   "12 perf route P a0 m0 s0 d0 n0", "13 perf route P/V a0 m0 s0 d0 n0",
                   "14 perf route P/V/7 a0 m28c2000 s200 d0 n0"}));
  EXPECT_EQ(graph.edges,
            (Lines{"P/V -applies to-> V", "P/V/7 -application-> A", "P/V/7 -SaaS application-> A",
                   "P/V/7 -destination-> D", "P/V/7 -source-> S", "P/V/7 -SLA class-> C",
                   "P/V/7 -application id-> I"}));
  pol_fwd_entry_saas_app_list_upd(ctx, "P", kind, "V", 7, nullptr);
}

TEST_F(GraphTest, WhatADeletedSequenceLeftRegisteredIsThePolicysAndThenNobodys) {
  uint32_t kind = POL_KIND_DATA;
  block("P", kind);
  pol_fwd_vpn_find_or_create(ctx, "P", kind, "V");
  t_pol_fwd_user* left = pol_fwd_entry_find_or_create(ctx, "P", kind, "V", 7)->fwd.user;
  pol_fwd_entry_dns_app_list_upd(ctx, "P", kind, "V", 7, "A");
  pol_fwd_entry_find_and_delete(ctx, "P", kind, "V", 7);
  EXPECT_EQ(walk().edges, (Lines{"P/V -applies to-> V", "P -DNS application-> A"}));
  pol_block_find_and_delete(ctx, "P", kind, &changed);
  EXPECT_EQ(walk().edges, (Lines{"nobody -DNS application-> A"}));
  pol_dns_app_list_user_remove(ctx, pol_app_list_first(ctx), left);
}

}  // namespace
