// SPDX-License-Identifier: Apache-2.0
//
// pol_policy_index.h - what lets evaluation pass over the sequences of a policy that cannot match.
//
// A policy of more than a few sequences has an index: for each kind of clause that it uses, the
// sequences without such a clause, and a table from values (lists: from lists) to the sequences that
// ask for them. A route's values each lead to the sequences that they do not rule out; what is left of
// all of them is tried by the rules (route/pol_candidates.h). An index rules out and nothing else: a hash
// may stand for a value, and a list that may hold a value for one that does.
//
// Lists keep no place in the index for their elements: a policy of few lists asks each list, one of many
// has its lists enrolled in the context's directory of their family. So elements come and go without
// touching an index.
//
// A change of a sequence or match clause makes the index stale, and evaluation walks until the batch
// is told: then, before anybody is called back, it is made anew. A policy that nobody uses waits for its
// first user. Where memory runs out there is no index until the policy's next change. All memory is
// uncounted.
//
// Sets of sequences are by place in the order of numbers, 64 in a word. A table's set is a chain of its
// words that are not zero, lowest first, so that memory grows with the clauses and not with values times
// sequences.
//
// Invariants
//   1. An index that is not stale has the sequences of its policy's queue, in order.
//   2. Every list in it is one that a clause of the policy is registered on, so it outlives a fresh
//      index. No index is made while a clause is left over on a list (NamedHead::stale).
#pragma once

#include <cstdint>

#include "core/pol_block_internal.h"

namespace pol {

struct Directories;

enum IndexKind : uint8_t {
  INDEX_TYPE,
  INDEX_TAG,
  INDEX_PREFERENCE,
  INDEX_DOMAIN,
  INDEX_VPN_ID,
  INDEX_SITE,
  INDEX_CARRIER,
  INDEX_COLOR,
  INDEX_TLOC,
  INDEX_ORIGIN,
  INDEX_ORIGINATOR,
  INDEX_GROUP,
  INDEX_VPN_LIST,  // from here on lists
  INDEX_SITE_LIST,
  INDEX_TLOC_LIST,
  INDEX_COLOR_LIST,
  INDEX_PFX_LIST,
  INDEX_KINDS,
};

struct IndexWord {
  uint64_t bits;  // never 0
  uint32_t at;    // which 64 sequences
  uint32_t next;  // in IndexField::more, from 1; 0: the last
};

struct IndexSlot {
  uint64_t key;
  IndexWord first;  // bits 0: free
};

struct IndexField {
  // A policy of so few lists asks each.
  static constexpr unsigned kFewLists = 3;

  IndexKind kind;
  uint8_t list_count;   // of `lists`
  uint32_t generation;  // of the directory that has the lists; 0: each is asked
  uint32_t mask;        // of `slots`
  uint32_t without;     // sequences that have no such clause
  uint64_t* any;        // these, a bit each; null when there are none
  uint64_t* any_words;  // a bit for each word of `any` that is not zero
  IndexSlot* slots;     // open addressing
  IndexWord* more;
  const NamedHead* lists[kFewLists];

  const IndexWord* find(uint64_t key) const {
    for (uint32_t i = hash(key) & mask;; i = (i + 1) & mask) {
      if (slots[i].first.bits == 0) return nullptr;
      if (slots[i].key == key) return &slots[i].first;
    }
  }
  static uint32_t hash(uint64_t key) {
    return static_cast<uint32_t>((key * 0x9e3779b97f4a7c15) >> 32);
  }
};

struct PolicyIndex {
  bool fresh;
  uint8_t field_count;
  uint8_t type;  // the match type of all sequences; 0: they have several
  uint32_t words;
  uint32_t clauses;  // match_flags of all sequences together
  uint32_t count;
  t_pol_entry** entries;
  const Directories* directories;
  IndexField fields[1];  // field_count: values first, then lists, the more telling ones first
};

uint64_t index_key(const t_ipaddr& address);
inline uint64_t index_origin_key(uint8_t protocol, uint8_t subtype) {
  return 0x10000u | unsigned{protocol} << 8 | subtype;
}
// Of routes of protocol 4, for which the sequence's is not compared.
inline uint64_t index_origin_key(uint8_t subtype) { return 0x20000u | subtype; }

// What notes a change, policy_index_stale, stands where lists can call it, too (lists/named_list.h).
// Makes the policy's index if it waits for that.
void policy_index_refresh(t_pol_ctx* ctx, t_pol_block* block);
// Makes all indexes that wait and somebody uses.
void policy_index_refresh_all(t_pol_ctx* ctx);
// Frees the policy's index for good.
void policy_index_drop(t_pol_ctx* ctx, t_pol_block* block);

}  // namespace pol
