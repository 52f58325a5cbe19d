// SPDX-License-Identifier: Apache-2.0
//
// pol_exec_rules.h - the rules of evaluation, with an observer that is told what happens.
//
// The rules stand here once. pol_execute runs them with an observer that the compiler removes,
// pol_explain with one that reports.
//
// A sequence is tried when its match type is the query's (route, tloc or service). It decides when
// every configured clause holds, tested in this order; the bit is reported in `matched`:
//
//   clause      holds when                                                        bit
//   tag         present and equal                                                 yes
//   preference  present and equal                                                 yes
//   domain      present and equal                                                 yes
//   group       present and one of the route's groups is equal                    yes
//   vpn id      the query's VPN is equal                                          yes
//   vpn list    a range holds the query's VPN                                     no
//   tloc        there is a TLOC, and it is equal                                  yes
//   tloc list   there is a TLOC, and the list has it                              no
//   site        present and equal                                                 yes
//   site list   a range holds the site, present or not                            no
//   pfx list    an element matches the query's prefix                             no
//   origin      present and equal, but for the sub-types of protocol 4            yes
//   originator  present and equal                                                 yes
//   carrier     present and equal                                                 yes
//   color       there is a TLOC, and its color is equal                           yes
//   color list  there is a TLOC, and the list has its color                       no
//
// The TLOC is the query's own in a sequence of match type tloc, else the route's, if it carries
// one. Clauses that name a list never report a bit: on purpose, `matched` tells of single values.
//
// An index passes over sequences that cannot match (pol_candidates.h); an observer that wants to hear of
// every sequence has all of them tried.
#pragma once

#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"
#include "policy/pol_exec.h"
#include "route/pol_candidates.h"

namespace pol {

struct SilentObserver {
  static constexpr bool kHearsAll = false;
  void type_differs(const t_pol_entry&) {}
  void failed(const t_pol_entry&, uint32_t /*clause*/) {}
  void decided(const t_pol_entry&, bool /*by_default*/, uint32_t /*action*/) {}
};

// A route's TLOC as the clauses of a sequence see it; null when there is none.
inline const t_tloc_id* tloc_source(const t_pol_entry& entry, const t_pol_route_query& query,
                                    const t_pol_route_attr& attr) {
  if (entry.match.type == POL_MATCH_TLOC) return &query.tloc;
  return (attr.present & POL_ATTR_TLOC) != 0 ? &attr.tloc : nullptr;
}

bool match_group(const t_pol_route_attr& attr, uint32_t group);
bool match_vpn_list(const t_vpn_list* list, uint64_t vpn);
bool match_tloc_list(const t_tloc_list* list, const t_tloc_id& tloc);
bool match_color_list(const t_color_list* list, uint8_t color);
inline bool match_pfx_list(const t_pfx_list* list, const t_ipprefix& prefix) {
  return list != nullptr && list->index.matches(prefix);
}
bool match_origin(const t_pol_match& match, const t_pol_route_attr& attr);

// Starts the query from the caller's attributes.
void copy_attributes(t_pol_route_query* query);

// Has what the next queries of `left` are going to read fetched; returns how many these are.
unsigned fetch_group(const t_pol_user* user, const t_pol_route_query* queries, uint32_t left);

// Applies the set clauses of what decided. Returns the action, turned into a reject when a TLOC was
// to be set and none resolves.
uint32_t apply_sets(const t_pol_user& user, const t_pol_set& set, uint32_t flags,
                    t_pol_route_query* query);

// Applies the set clauses that only write attributes.
inline void apply_plain_sets(const t_pol_set& set, uint32_t flags, t_pol_route_query* query) {
  if (query->match_type != POL_MATCH_ROUTE && query->match_type != POL_MATCH_TLOC) return;
  if ((flags & POL_SET_F_TAG) != 0) {
    query->attr_copy.tag = set.tag;
    query->attr_copy.present |= POL_ATTR_TAG;
    query->applied |= POL_APPLIED_TAG;
  }
  if ((flags & POL_SET_F_PREF) != 0) {
    query->attr_copy.preference = set.preference;
    query->attr_copy.present |= POL_ATTR_PREF;
    query->applied |= POL_APPLIED_PREF;
  }
}

// One sequence tried for one query.
template <class Observer>
class Trial {
 public:
  Trial(const t_pol_entry& entry, const t_pol_route_attr& attr, const t_pol_route_query& query,
        Observer& observer)
      : entry_(entry), match_(entry.match), attr_(attr), query_(query), observer_(observer) {}

  // What most sequences are passed over for is tested in the caller's loop.
  [[gnu::always_inline]] bool matches() {
    if (!first_match()) return false;
    const uint32_t rest = entry_.match_flags & ~(POL_MATCH_F_TAG | POL_MATCH_F_PREF);
    return rest == 0 || (rest == POL_MATCH_F_PFX_LIST ? prefix_matches() : rest_matches());
  }
  // For a sequence that is known to fail: tests what has a bit in `matched`, and what comes before that.
  void leave_matched() {
    constexpr uint32_t kUnreported = kIndexLists | POL_MATCH_F_TAG | POL_MATCH_F_PREF;
    if ((entry_.match_flags & ~kUnreported) != 0) {
      (void)matches();
    } else {
      (void)first_match();
    }
  }
  uint32_t matched() const { return matched_; }

 private:
  [[gnu::always_inline]] bool first_match() {
    if (match_.type != query_.match_type || match_.type < POL_MATCH_ROUTE ||
        match_.type > POL_MATCH_SERVICE) {
      observer_.type_differs(entry_);
      return false;
    }
    return holds<POL_MATCH_F_TAG>(
               [this] { return present(POL_ATTR_TAG) && attr_.tag == match_.tag; }) &&
           holds<POL_MATCH_F_PREF>(
               [this] { return present(POL_ATTR_PREF) && attr_.preference == match_.preference; });
  }

  // In groups, because most sequences have few clauses.
  [[gnu::noinline]] bool rest_matches() {
    constexpr uint32_t kVpns =
        POL_MATCH_F_DOMAIN | POL_MATCH_F_GROUP | POL_MATCH_F_VPN_ID | POL_MATCH_F_VPN_LIST;
    constexpr uint32_t kSites =
        POL_MATCH_F_TLOC | POL_MATCH_F_TLOC_LIST | POL_MATCH_F_SITE | POL_MATCH_F_SITE_LIST;
    constexpr uint32_t kOthers = POL_MATCH_F_ORIGIN | POL_MATCH_F_ORIGINATOR | POL_MATCH_F_CARRIER |
                                 POL_MATCH_F_COLOR | POL_MATCH_F_COLOR_LIST;
    return (!has(kVpns) || vpns_match()) && (!has(kSites) || sites_match()) && prefix_matches() &&
           (!has(kOthers) || others_match());
  }

  [[gnu::always_inline]] bool prefix_matches() {
    return holds<POL_MATCH_F_PFX_LIST>(
        [this] { return match_pfx_list(list_of<t_pfx_list>(match_.pfx_list), query_.prefix); });
  }

  bool vpns_match() {
    return holds<POL_MATCH_F_DOMAIN>(
               [this] { return present(POL_ATTR_DOMAIN) && attr_.domain == match_.domain; }) &&
           holds<POL_MATCH_F_GROUP>(
               [this] { return present(POL_ATTR_GROUP) && match_group(attr_, match_.group); }) &&
           holds<POL_MATCH_F_VPN_ID>([this] { return query_.vpn == match_.vpn_id; }) &&
           holds<POL_MATCH_F_VPN_LIST>(
               [this] { return match_vpn_list(list_of<t_vpn_list>(match_.vpn_list), query_.vpn); });
  }

  bool sites_match() {
    return holds<POL_MATCH_F_TLOC>(
               [this] { return tloc() != nullptr && tloc_equal(*tloc(), match_.tloc); }) &&
           holds<POL_MATCH_F_TLOC_LIST>([this] {
             return tloc() != nullptr &&
                    match_tloc_list(list_of<t_tloc_list>(match_.tloc_list), *tloc());
           }) &&
           holds<POL_MATCH_F_SITE>(
               [this] { return present(POL_ATTR_SITE) && attr_.site == match_.site; }) &&
           holds<POL_MATCH_F_SITE_LIST>([this] {
             return pol_exec_match_site_id_to_site_list(list_of<t_site_list>(match_.site_list),
                                                        attr_.site) != 0;
           });
  }

  bool others_match() {
    return holds<POL_MATCH_F_ORIGIN>(
               [this] { return present(POL_ATTR_ORIGIN) && match_origin(match_, attr_); }) &&
           holds<POL_MATCH_F_ORIGINATOR>([this] {
             return present(POL_ATTR_ORIGINATOR) &&
                    address_equal(attr_.originator, match_.originator);
           }) &&
           holds<POL_MATCH_F_CARRIER>(
               [this] { return present(POL_ATTR_CARRIER) && attr_.carrier == match_.carrier; }) &&
           holds<POL_MATCH_F_COLOR>(
               [this] { return tloc() != nullptr && tloc()->color == match_.color; }) &&
           holds<POL_MATCH_F_COLOR_LIST>([this] {
             return tloc() != nullptr &&
                    match_color_list(list_of<t_color_list>(match_.color_list), tloc()->color);
           });
  }

  // Whether the sequence does not have the clause, or its test holds; notes the outcome.
  template <uint32_t kClause, class Test>
  [[gnu::always_inline]] bool holds(Test test) {
    if ((entry_.match_flags & kClause) == 0) return true;
    if (!test()) {
      observer_.failed(entry_, kClause);
      return false;
    }
    constexpr uint32_t kLists = POL_MATCH_F_VPN_LIST | POL_MATCH_F_TLOC_LIST |
                                POL_MATCH_F_SITE_LIST | POL_MATCH_F_PFX_LIST |
                                POL_MATCH_F_COLOR_LIST;
    if ((kClause & kLists) == 0) matched_ |= kClause;
    return true;
  }

  bool has(uint32_t clauses) const { return (entry_.match_flags & clauses) != 0; }
  bool present(uint32_t bit) const { return (attr_.present & bit) != 0; }
  const t_tloc_id* tloc() const { return tloc_source(entry_, query_, attr_); }

  const t_pol_entry& entry_;
  const t_pol_match& match_;
  const t_pol_route_attr& attr_;
  const t_pol_route_query& query_;
  Observer& observer_;
  uint32_t matched_ = 0;
};

// The sequence that decides; null when none does. `matched` becomes what the last one tried left.
template <class Observer>
const t_pol_entry* find_decider(const t_pol_block& block, const t_pol_route_attr& attr,
                                t_pol_route_query* query, Observer& observer) {
  const t_pol_entry* decider = nullptr;
  uint32_t matched = query->matched;
  for (const t_pol_entry& entry : block.in_order) {
    Trial<Observer> trial(entry, attr, *query, observer);
    if (trial.matches()) decider = &entry;
    matched = trial.matched();
    if (decider != nullptr) break;
  }
  query->matched = matched;
  return decider;
}

// The same by the policy's index. False when it cannot tell.
template <class Observer>
[[gnu::noinline]] bool find_candidate(const PolicyIndex& index, const t_pol_route_attr& attr,
                                      t_pol_route_query* query, Observer& observer,
                                      const t_pol_entry** decider) {
  Candidates candidates(index, *query, attr);
  if (!candidates.find()) return false;
  for (; !candidates.none(); candidates.advance()) {
    const t_pol_entry& entry = candidates.first();
    Trial<Observer> trial(entry, attr, *query, observer);
    if (!trial.matches()) continue;
    query->matched = trial.matched();
    *decider = &entry;
    return true;
  }
  // A walk would have tried the last sequence last.
  Trial<Observer> last(*index.nodes[index.count - 1].entry, attr, *query, observer);
  last.leave_matched();
  query->matched = last.matched();
  return true;
}

template <class Observer>
uint32_t exec_route(t_pol_user* user, t_pol_route_query* query, Observer& observer) {
  static constexpr t_pol_route_attr kNoAttributes = {};
  const t_pol_block* block = user->block;
  if (block == nullptr) return POL_REJECT;
  const t_pol_route_attr& attr = query->attr != nullptr ? *query->attr : kNoAttributes;

  const PolicyIndex* index = Observer::kHearsAll ? nullptr : block->index;
  const t_pol_entry* decider = nullptr;
  if (index == nullptr || !find_candidate(*index, attr, query, observer, &decider)) {
    decider = find_decider(*block, attr, query, observer);
  }
  const bool by_default = decider == nullptr;
  if (by_default) decider = &block->default_action;
  uint32_t action = decider->action;
  if (action == POL_ACCEPT) {
    constexpr uint32_t kPlain = POL_SET_F_TAG | POL_SET_F_PREF;
    if ((decider->set_flags & ~kPlain) == 0) {
      apply_plain_sets(decider->set, decider->set_flags, query);
    } else {
      action = apply_sets(*user, decider->set, decider->set_flags, query);
    }
  }
  observer.decided(*decider, by_default, action);
  return action;
}

}  // namespace pol
