// SPDX-License-Identifier: Apache-2.0
//
// pol_candidates.h - the sequences of a policy that its index does not rule out for a route.
//
// Each kind of clause that the policy uses gives a set of sequences: those without the clause and those
// that ask for the route's value. The sets are intersected a word of 64 sequences at a time, and the sets
// of lists, which cost a look-up in a trie, are asked for only where several sequences are left. Nothing
// is written but to the caller's stack.
#pragma once

#include "core/pol_policy_index.h"
#include "policy/pol_exec.h"

namespace pol {

// Whether the index may be used: it is fresh, and no value is of an address family at which comparing
// it would have to fail an assertion.
bool candidates_usable(const PolicyIndex& index, const t_pol_route_query& query,
                       const t_pol_route_attr& attr);

// Has the memory fetched in which a policy of many sequences finds its candidates for these queries, at
// most PfxIndex::kFetched.
void candidates_fetch(const PolicyIndex& index, const t_pol_route_query* queries, unsigned count);

class Candidates {
 public:
  Candidates(const PolicyIndex& index, const t_pol_route_query& query,
             const t_pol_route_attr& attr);

  // The next one that may match, by number; null when there is none.
  const t_pol_entry* next();

 private:
  struct Cursor {
    uint64_t bits;
    uint32_t at;
    uint32_t next;
  };
  struct Set {
    const IndexField* field;
    const uint64_t* any;
    Cursor* cursors;
    uint32_t count;
    uint32_t at;       // the word that `bits` are of; the cursors stand there or beyond
    uint32_t next_at;  // where a cursor stands beyond it; kNone when none does
    uint64_t bits;
  };
  // More values than that of one route rule nothing out.
  static constexpr unsigned kMostValues = 24;
  static constexpr unsigned kMostCursors = 64;
  static constexpr uint32_t kNone = UINT32_MAX;

  bool ask_next_field();
  bool values_of(const IndexField& field);
  bool lists_of(const IndexField& field);
  void add_value(const IndexField& field, uint64_t key);
  bool add_lists(const IndexField& field, const NamedHead* const* lists, unsigned count);
  bool seek();
  void move_to(Set* set, uint32_t at) const;
  uint64_t word_of(Set* set, uint32_t at) const;
  uint32_t word_after(const Set& set, uint32_t at) const;

  const PolicyIndex& index_;
  const t_pol_route_query& query_;
  const t_pol_route_attr& attr_;
  const t_tloc_id* tloc_;
  uint64_t word_ = 0;  // left of the 64 sequences at `at_`
  uint32_t at_ = 0;
  unsigned asked_ = 0;  // fields
  unsigned given_ = 0;  // candidates
  unsigned set_count_ = 0;
  unsigned cursor_count_ = 0;
  Set sets_[INDEX_KINDS];
  Cursor cursors_[kMostCursors];
};

}  // namespace pol
