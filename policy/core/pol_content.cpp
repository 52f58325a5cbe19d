// SPDX-License-Identifier: Apache-2.0
// Hands out what policies and lists hold, read off the records that evaluation reads.
#include "policy/pol_content.h"

#include "core/pol_context_internal.h"
#include "policy/pol_graph.h"

namespace {

using Element = t_pol_content_element;
using Sequence = t_pol_content_sequence;

void fill(const pol::RangeNode& from, Element* to) {
  to->low = from.low;
  to->high = from.high;
}

void fill(const t_tloc_entry& from, Element* to) { to->tloc = from.tloc; }

void fill(const t_color_entry& from, Element* to) { to->color = from.color; }

void fill(const t_pfx_entry& from, Element* to) {
  to->prefix.op = from.op;
  to->prefix.prefix.addr = pol::pfx_address(from);
  to->prefix.prefix.len = from.len;
  to->prefix.min = from.min;
  to->prefix.max = from.max;
}

class Walk {
 public:
  explicit Walk(const t_pol_content_visitor& visitor) : visitor_(visitor) {}

  template <class List, class Elements>
  void lists(const pol::NamedTree<List>& tree, uint32_t type, Elements elements_of) const {
    for (const List* list = tree.first(); list != nullptr; list = tree.next(list)) {
      if (visitor_.list != nullptr) visitor_.list(visitor_.arg, type, list, list->head.name);
      if (visitor_.element == nullptr) continue;
      for (const auto& each : elements_of(*list)) {
        Element element = {};
        fill(each, &element);
        visitor_.element(visitor_.arg, &element);
      }
    }
  }

  void policies(const pol::AvlTree<t_pol_block>& tree) const {
    for (const t_pol_block* block = tree.first(); block != nullptr; block = tree.next(block)) {
      if (visitor_.policy != nullptr) visitor_.policy(visitor_.arg, block->kind, block->name);
      if (visitor_.sequence == nullptr) continue;
      for (const t_pol_entry& entry : block->in_order) sequence(entry, false);
      sequence(block->default_action, true);
    }
  }

 private:
  void sequence(const t_pol_entry& entry, bool is_default) const {
    const t_pol_match& match = entry.match;
    const t_pol_set& set = entry.set;
    Sequence to = {};
    to.sequence = entry.sequence;
    to.is_default = is_default ? 1 : 0;
    to.action = entry.action;
    to.match_type = match.type;
    to.match_flags = entry.match_flags;
    to.set_flags = entry.set_flags;
    to.tag = match.tag;
    to.preference = match.preference;
    to.domain = match.domain;
    to.group = match.group;
    to.site = match.site;
    to.vpn_id = match.vpn_id;
    to.color = match.color;
    to.origin_protocol = match.origin_protocol;
    to.origin_subtype = match.origin_subtype;
    to.carrier = match.carrier;
    to.tloc = match.tloc;
    to.originator = match.originator;
    to.site_list = pol::list_of<t_site_list>(match.site_list);
    to.vpn_list = pol::list_of<t_vpn_list>(match.vpn_list);
    to.tloc_list = pol::list_of<t_tloc_list>(match.tloc_list);
    to.color_list = pol::list_of<t_color_list>(match.color_list);
    to.pfx_list = pol::list_of<t_pfx_list>(match.pfx_list);
    to.set_tag = set.tag;
    to.set_preference = set.preference;
    to.set_vpn_id = set.vpn_id;
    to.set_tloc = set.tloc;
    to.ultimate_tloc = set.ultimate_tloc;
    to.set_service = set.service;
    to.set_service_tloc = set.service_tloc;
    to.set_service_vpn = set.service_vpn;
    to.set_vpn_list = pol::list_of<t_vpn_list>(set.vpn_list);
    to.set_tloc_list = pol::list_of<t_tloc_list>(set.tloc_list);
    visitor_.sequence(visitor_.arg, &to);
  }

  const t_pol_content_visitor& visitor_;
};

}  // namespace

uint32_t pol_content_walk(t_pol_ctx* ctx, const t_pol_content_visitor* visitor) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (visitor == nullptr) return POL_EINVAL;
  auto ranges = [](const auto& list) -> const auto& { return list.entries.in_order(); };
  auto entries = [](const auto& list) -> const auto& { return list.entries; };
  Walk walk(*visitor);
  walk.lists(ctx->site_lists, POL_GRAPH_SITE_LIST, ranges);
  walk.lists(ctx->vpn_lists, POL_GRAPH_VPN_LIST, ranges);
  walk.lists(ctx->tloc_lists, POL_GRAPH_TLOC_LIST, entries);
  walk.lists(ctx->color_lists, POL_GRAPH_COLOR_LIST, entries);
  walk.lists(ctx->pfx_lists, POL_GRAPH_PREFIX_LIST, entries);
  walk.policies(ctx->blocks[POL_KIND_ROUTE - 1]);
  walk.policies(ctx->blocks[POL_KIND_MEMBERSHIP - 1]);
  return POL_OK;
}
