// SPDX-License-Identifier: Apache-2.0
//
// pol_candidates.h - the sequences of a policy that its index does not rule out for a route.
//
// A route's values give one key for each shape of the index, and one more for each list, group or origin in
// a shape that has one. What stands under the keys is given lowest number first. Nothing is written but to
// the caller's stack.
#pragma once

#include "core/pol_policy_index.h"
#include "policy/pol_exec.h"

namespace pol {

// Has the memory fetched in which a policy of many sequences finds its candidates for these queries, at
// most PfxIndex::kFetched.
void candidates_fetch(const PolicyIndex& index, const t_pol_route_query* queries, unsigned count);

class Candidates {
 public:
  Candidates(const PolicyIndex& index, const t_pol_route_query& query, const t_pol_route_attr& attr)
      : index_(index), query_(query), attr_(attr) {}

  // Looks the route's keys up. False where the index cannot tell: it is stale, too many lists hold the
  // route, or a value is of an address family at which comparing it would have to fail an assertion.
  bool find();
  // By number, those that may match.
  bool none() const { return least_ == kNone; }
  const t_pol_entry& first() const { return *index_.nodes[least_].entry; }
  void advance();

 private:
  static constexpr unsigned kMostValues = 64;
  static constexpr unsigned kMostHeads = 128;
  static constexpr uint32_t kNone = UINT32_MAX;

  // Of shapes with the same clause of several values, what their single values give.
  struct Keys {
    uint32_t clause;
    unsigned count;
    uint64_t keys[PolicyIndex::kMostShapes];
  };

  template <class Count>
  bool find_by();
  bool values();
  uint64_t key_of_values(const IndexShape& shape) const;
  void add(uint64_t key);
  template <class Value>
  bool add_each(const Keys& keys, const Value* values, unsigned count);
  template <class Ask, class Holds>
  bool add_lists(const Keys& keys, Ask ask, Holds holds);
  template <class Count>
  bool add_prefix_lists(const Keys& keys);
  template <class Count, class Holds>
  bool add_id_lists(const Keys& keys, uint32_t id, Holds holds);
  template <class Count>
  bool add_several(const Keys& keys);

  const PolicyIndex& index_;
  const t_pol_route_query& query_;
  const t_pol_route_attr& attr_;
  const t_tloc_id* tloc_ = nullptr;
  uint32_t have_ = 0;       // clauses of one value for which the route has it, as far as shapes ask
  uint32_t least_ = kNone;  // of the heads, from 0: which is next
  unsigned count_ = 0;
  uint64_t value_keys_[32];     // of these clauses, by the place of the bit
  uint32_t heads_[kMostHeads];  // of chains; 0: at its end
};

}  // namespace pol
