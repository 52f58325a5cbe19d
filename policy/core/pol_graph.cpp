// SPDX-License-Identifier: Apache-2.0
// What uses what. Nothing is looked up: the nodes are the context's trees, the edges are read off
// the users that each object keeps.
#include "policy/pol_graph.h"

#include "core/pol_context_internal.h"
#include "lists/pol_fwd_roles.h"

namespace {

using pol::NamedTree;
using pol::UserQueue;

constexpr uint32_t kKinds[] = {POL_KIND_ROUTE, POL_KIND_DATA, POL_KIND_PERF_ROUTE,
                               POL_KIND_MEMBERSHIP, POL_KIND_CFLOWD};

class GraphWalk {
 public:
  GraphWalk(t_pol_ctx* ctx, const t_pol_graph_visitor& visitor) : ctx_(ctx), visitor_(visitor) {}

  void nodes() const {
    lists(ctx_->site_lists, POL_GRAPH_SITE_LIST,
          [](const t_site_list& list) { return count(list.entries.in_order()); });
    lists(ctx_->vpn_lists, POL_GRAPH_VPN_LIST,
          [](const t_vpn_list& list) { return count(list.entries.in_order()); });
    lists(ctx_->tloc_lists, POL_GRAPH_TLOC_LIST, elements<t_tloc_list>);
    lists(ctx_->color_lists, POL_GRAPH_COLOR_LIST, elements<t_color_list>);
    lists(ctx_->pfx_lists, POL_GRAPH_PREFIX_LIST, elements<t_pfx_list>);
    lists(ctx_->app_lists, POL_GRAPH_APP_LIST, none<t_app_list>);
    lists(ctx_->fwd_pfx_lists, POL_GRAPH_DATA_PREFIX_LIST, none<t_fwd_pfx_list>);
    lists(ctx_->fwd_pfx6_lists, POL_GRAPH_DATA_IPV6_PREFIX_LIST, none<t_fwd_pfx_list>);
    lists(ctx_->sla_classes, POL_GRAPH_SLA_CLASS, none<t_fwd_sla_class>);
    lists(ctx_->policers, POL_GRAPH_POLICER, none<t_fwd_policer>);
    lists(ctx_->app_ids, POL_GRAPH_APP_ID, none<t_fwd_app_id>);
    for (uint32_t kind : kKinds) {
      const auto& tree = ctx_->blocks[kind - 1];
      for (t_pol_block* block = tree.first(); block != nullptr; block = tree.next(block)) {
        policy(*block);
      }
    }
    for (t_pol_user* user = ctx_->users.first(); user != nullptr; user = ctx_->users.next(user)) {
      t_pol_graph_node node = {};
      node.id = user;
      node.type = POL_GRAPH_USER;
      node.kind = user->kind;
      node.name = user->name;
      node.direction = user->direction;
      visitor_.node(visitor_.arg, &node);
    }
    each(ctx_->site_lists, [this](const t_site_list& list) {
      if (list.list_user == nullptr) return;
      t_pol_graph_node node = {};
      node.id = list.list_user;
      node.type = POL_GRAPH_LIST_USER;
      visitor_.node(visitor_.arg, &node);
    });
  }

  void edges() const {
    each(ctx_->site_lists, [this](const t_site_list& list) {
      used(&list, list.pol_users, "match");
      if (list.list_user != nullptr) edge(list.list_user, &list, "user");
    });
    each(ctx_->vpn_lists, [this](const t_vpn_list& list) {
      used(&list, list.match_users, "match");
      used(&list, list.action_users, "set");
      for (const t_pol_fwd_vpn_entry& vpn : list.fwd_pol_users) edge(&vpn, &list, "applies to");
    });
    each(ctx_->tloc_lists, [this](const t_tloc_list& list) {
      used(&list, list.users, "match");
      used(&list, list.action_users, "set");
    });
    each(ctx_->color_lists, [this](const t_color_list& list) { used(&list, list.users, "match"); });
    each(ctx_->pfx_lists, [this](const t_pfx_list& list) { used(&list, list.users, "match"); });
    objects(ctx_->app_lists, pol::kAppListRoles);
    objects(ctx_->fwd_pfx_lists, pol::kFwdPfxRoles);
    objects(ctx_->fwd_pfx6_lists, pol::kFwdPfx6Roles);
    objects(ctx_->sla_classes, pol::kSlaClassRoles);
    objects(ctx_->policers, pol::kPolicerRoles);
    objects(ctx_->app_ids, pol::kAppIdRoles);
    for (uint32_t kind : kKinds) {
      each(ctx_->blocks[kind - 1], [this](const t_pol_block& block) {
        for (const t_pol_user& user : block.users) edge(&user, &block, "user");
      });
    }
  }

 private:
  template <class Node, class Visit>
  static void each(const pol::AvlTree<Node>& tree, Visit visit) {
    for (Node* node = tree.first(); node != nullptr; node = tree.next(node)) visit(*node);
  }

  template <class Queue>
  static uint32_t count(const Queue& queue) {
    uint32_t found = 0;
    for ([[maybe_unused]] const auto& element : queue) ++found;
    return found;
  }
  template <class List>
  static uint32_t elements(const List& list) {
    return count(list.entries);
  }
  template <class List>
  static uint32_t none(const List& /*list*/) {
    return 0;
  }

  template <class List, class Count>
  void lists(const NamedTree<List>& tree, uint32_t type, Count elements_of) const {
    each(tree, [&](const List& list) {
      t_pol_graph_node node = {};
      node.id = &list;
      node.type = type;
      node.name = list.head.name;
      node.elements = elements_of(list);
      visitor_.node(visitor_.arg, &node);
    });
  }

  void policy(const t_pol_block& block) const {
    t_pol_graph_node node = {};
    node.id = &block;
    node.type = POL_GRAPH_POLICY;
    node.kind = block.kind;
    node.name = block.name;
    bool forwarding = block.kind == POL_KIND_DATA || block.kind == POL_KIND_PERF_ROUTE;
    if (!forwarding) {
      node.action = block.default_action.action;
      node.set_flags = block.default_action.set_flags;
    }
    visitor_.node(visitor_.arg, &node);
    if (!forwarding) return sequences(block.entries, &block, block.kind, true);
    each(block.fwd_vpns, [&](const t_pol_fwd_vpn_entry& vpn) {
      t_pol_graph_node within = {};
      within.id = &vpn;
      within.parent = &block;
      within.type = POL_GRAPH_POLICY_VPN;
      within.kind = block.kind;
      within.name = vpn.name;
      visitor_.node(visitor_.arg, &within);
      sequences(vpn.entries, &vpn, block.kind, false);
    });
  }

  void sequences(const pol::AvlTree<t_pol_entry>& entries, const void* parent, uint32_t kind,
                 bool with_action) const {
    each(entries, [&](const t_pol_entry& entry) {
      t_pol_graph_node node = {};
      node.id = &entry;
      node.parent = parent;
      node.type = POL_GRAPH_SEQUENCE;
      node.kind = kind;
      node.name = "";
      node.sequence = entry.sequence;
      if (with_action) node.action = entry.action;
      node.match_flags = entry.match_flags;
      node.set_flags = entry.set_flags;
      visitor_.node(visitor_.arg, &node);
    });
  }

  template <class List, size_t N>
  void objects(const NamedTree<List>& tree, const pol::FwdRole (&roles)[N]) const {
    each(tree, [&](const List& list) {
      for (size_t role = 0; role < N; ++role) used(&list, list.users[role], roles[role].graph_word);
    });
  }

  // A default action is no sequence: its policy uses what its clauses name.
  void used(const void* object, const UserQueue& users, const char* role) const {
    for (const t_pol_clause_user& user : users) {
      const void* from = user.entry;
      if (user.block != nullptr && (from == nullptr || from == &user.block->default_action)) {
        from = user.block;
      }
      edge(from, object, role);
    }
  }

  void edge(const void* from, const void* to, const char* role) const {
    t_pol_graph_edge edge = {from, to, role};
    visitor_.edge(visitor_.arg, &edge);
  }

  t_pol_ctx* ctx_;
  const t_pol_graph_visitor& visitor_;
};

}  // namespace

uint32_t pol_graph_walk(t_pol_ctx* ctx, const t_pol_graph_visitor* visitor) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (visitor == nullptr) return POL_EINVAL;
  GraphWalk walk(ctx, *visitor);
  if (visitor->node != nullptr) walk.nodes();
  if (visitor->edge != nullptr) walk.edges();
  return POL_OK;
}
