// SPDX-License-Identifier: Apache-2.0
// Evaluation under an observer that tells each test without a word. It hears of failures and of what
// decides; what held before them follows from the order of testing.
#include "policy/pol_trace.h"

#include "route/pol_exec_rules.h"
#include "route/pol_taking.h"

namespace pol {
namespace {

class TraceObserver {
 public:
  static constexpr bool kHearsAll = true;

  TraceObserver(const t_pol_route_query& query, t_pol_trace_cb step, void* arg)
      : query_(query), step_(step), arg_(arg) {}

  void type_differs(const t_pol_entry&) {}

  void failed(const t_pol_entry& entry, uint32_t clause) {
    tell_held(entry, clause);
    tell(entry, clause, false);
  }

  void decided(const t_pol_entry& entry, bool by_default, uint32_t /*action*/) {
    if (!by_default) tell_held(entry, 0);
    t_pol_trace_step step = {};
    step.sequence = entry.sequence;
    step.is_default = by_default ? 1 : 0;
    step.decided = 1;
    step_(&step, arg_);
  }

 private:
  // The clauses tested before `end`; 0: all.
  void tell_held(const t_pol_entry& entry, uint32_t end) {
    for (uint32_t clause : kClauses) {
      if (clause == end) return;
      if ((entry.match_flags & clause) != 0) tell(entry, clause, true);
    }
  }

  void tell(const t_pol_entry& entry, uint32_t clause, bool held) {
    t_pol_trace_step step = {};
    step.sequence = entry.sequence;
    step.clause = clause;
    step.held = held ? 1 : 0;
    if (held) name_element(entry, clause, &step);
    step_(&step, arg_);
  }

  static void take_range(const t_pol_clause_user& user, const RangeSet& ranges, uint64_t id,
                         t_pol_trace_step* step) {
    const RangeNode* range = ranges.holding(id);
    if (range == nullptr) return;
    step->list = user.list;
    step->element.low = range->low;
    step->element.high = range->high;
  }

  void name_element(const t_pol_entry& entry, uint32_t clause, t_pol_trace_step* step) {
    static constexpr t_pol_route_attr kNone = {};
    const t_pol_match& match = entry.match;
    const t_pol_route_attr& attr = query_.attr != nullptr ? *query_.attr : kNone;
    switch (clause) {
      case POL_MATCH_F_SITE_LIST:
        return take_range(match.site_list, list_of<t_site_list>(match.site_list)->entries,
                          attr.site, step);
      case POL_MATCH_F_VPN_LIST:
        return take_range(match.vpn_list, list_of<t_vpn_list>(match.vpn_list)->entries, query_.vpn,
                          step);
      case POL_MATCH_F_TLOC_LIST:
        step->list = match.tloc_list.list;
        step->element.tloc = tloc_stored(*tloc_source(entry, query_, attr));
        return;
      case POL_MATCH_F_COLOR_LIST:
        step->list = match.color_list.list;
        step->element.color = tloc_source(entry, query_, attr)->color;
        return;
      case POL_MATCH_F_PFX_LIST:
        return take_prefix(match.pfx_list, step);
      default:
        return;
    }
  }

  void take_prefix(const t_pol_clause_user& user, t_pol_trace_step* step) const {
    const t_pfx_entry* element = taking_element(*list_of<t_pfx_list>(user), query_.prefix);
    if (element == nullptr) return;
    step->list = user.list;
    step->element.prefix = {
        element->op, {pfx_address(*element), element->len}, element->min, element->max};
  }

  const t_pol_route_query& query_;
  t_pol_trace_cb step_;
  void* arg_;
};

}  // namespace
}  // namespace pol

uint32_t pol_trace(t_pol_user* user, t_pol_route_query* query, t_pol_trace_cb step, void* arg) {
  if (user == nullptr || query == nullptr || step == nullptr) return pol_execute(user, query);
  pol::copy_attributes(query);
  pol::TraceObserver observer(*query, step, arg);
  return pol::exec_route(user, query, observer);
}
