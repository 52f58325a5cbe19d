// SPDX-License-Identifier: Apache-2.0
//
// pol_policy_index.h - what lets evaluation pass over the sequences of a policy that cannot match.
//
// A policy of more than a few sequences has an index: a table in which each sequence stands once, under
// values that it asks for all together. Its single values (tag, preference and so on) are the key; where
// too many sequences share them, one clause more is in it of which a route has several values: a list, a
// group or the origin. Which clauses are in the key is a shape, and a policy has few of them. A route's
// values give one key a shape, and one more for each list that holds the route; what stands under these
// keys is tried by the rules, lowest number first (route/pol_candidates.h). An index rules out and nothing
// else: what a key leaves out is the rules' to test, and a hash stands for the key.
//
// Lists keep no place in the index for their elements: a policy of few lists asks each list, one of
// many has them enrolled in a directory (lists/list_directory.h), which it shares with the policies
// that share lists with it. So elements come and go without touching an index.
//
// A change of a sequence or match clause makes the index stale, and evaluation walks until the
// batch is told: then, before anybody is called back, it is made anew; or grown, where sequences
// came behind the last one and this one changed at most, so that loading them a batch each does not
// take an index made anew for each. A policy that nobody uses waits for its first user. Where
// memory runs out there is no index until the policy's next change. All memory is uncounted.
//
// Invariants
//   1. An index that is not stale has the sequences of its policy's queue, in order, and in the table those
//      that can match at all. One that changed while it was the last is there twice, also under what
//      it asked for before.
//   2. Every list in it is one that a clause of the policy is registered on, so it outlives a fresh
//      index. No index is made while a clause is left over on a list (NamedHead::stale).
//   3. A key's chain has its sequences by ascending number.
#pragma once

#include <bit>
#include <cstdint>

#include "core/pol_block_internal.h"
#include "lists/list_directory.h"

namespace pol {

// Clauses of which a route has one value, and those of which it has several.
constexpr uint32_t kIndexValues = POL_MATCH_F_TAG | POL_MATCH_F_PREF | POL_MATCH_F_DOMAIN |
                                  POL_MATCH_F_VPN_ID | POL_MATCH_F_TLOC | POL_MATCH_F_SITE |
                                  POL_MATCH_F_ORIGINATOR | POL_MATCH_F_CARRIER | POL_MATCH_F_COLOR;
constexpr uint32_t kIndexLists = POL_MATCH_F_VPN_LIST | POL_MATCH_F_TLOC_LIST |
                                 POL_MATCH_F_SITE_LIST | POL_MATCH_F_PFX_LIST |
                                 POL_MATCH_F_COLOR_LIST;
constexpr uint32_t kIndexSeveral = kIndexLists | POL_MATCH_F_GROUP | POL_MATCH_F_ORIGIN;

// The clauses in a key.
struct IndexShape {
  uint32_t values;   // of kIndexValues
  uint32_t several;  // one of kIndexSeveral, or 0
};

// The lists of one family that stand in keys.
struct IndexLists {
  // A policy of so few asks each.
  static constexpr uint32_t kFew = 3;

  uint32_t clause;  // POL_MATCH_F_*_LIST
  uint32_t count;   // of `lists`; more than kFew: they are in the directory
  NamedHead* lists[kFew];
  DirectoryUser user;

  bool few() const { return count <= kFew; }
  // Null where there is none that answers.
  const ListDirectory* directory() const {
    const ListDirectory* relied_on = user.directory;
    return relied_on != nullptr && !relied_on->broken ? relied_on : nullptr;
  }
};

// Four keys that a look-up compares at once.
struct IndexBucket {
  static constexpr unsigned kSize = 4;
  using Four = uint32_t __attribute__((vector_size(16)));

  Four prints;  // of the keys
  Four heads;   // places in `nodes`, from 1; 0: free, as those behind it
};

struct IndexNode {
  t_pol_entry* entry;
  uint32_t next;  // as `head`; 0: the last
  uint32_t last;  // of a chain's first node: the place of its last
};

// Followed by its arrays, all in one piece of memory.
struct alignas(IndexBucket) PolicyIndex {
  static constexpr unsigned kFamilies = 5;
  // Those beyond the first 16 have at most one clause each.
  static constexpr unsigned kMostShapes = 16 + 17;

  bool fresh;
  bool grows;      // of one that is stale: by what came behind its last sequence
  bool last_grew;  // this one changed
  uint8_t shift;   // of a key: what is left is a place in `buckets`
  uint8_t shape_count;
  uint32_t clauses;  // match_flags of all sequences together
  uint32_t values;   // of all shapes together
  uint32_t count;
  uint32_t room;
  IndexNode* nodes;      // `count`, by order of sequences
  IndexBucket* buckets;  // a full one goes on in the next
  IndexLists families[kFamilies];
  IndexShape shapes[kMostShapes];  // those of the same `several` side by side, without it first

  // What a key's sequences are chained from; 0: there are none.
  uint32_t head_of(uint64_t key) const {
    const uint32_t print = print_of(key);
    const IndexBucket::Four prints = {print, print, print, print};
    for (uint64_t at = key >> shift;; at = (at + 1) & (~uint64_t{0} >> shift)) {
      const IndexBucket& bucket = buckets[at];
      using Two = uint64_t __attribute__((vector_size(16)));
      const Two same = reinterpret_cast<Two>((bucket.prints == prints) & bucket.heads);
      const uint64_t both = same[0] | same[1];
      const auto head = static_cast<uint32_t>(both | both >> 32);
      if (bucket.heads[IndexBucket::kSize - 1] == 0 || head != 0) return head;
    }
  }
  // A key's upper bits name its bucket.
  static uint32_t print_of(uint64_t key) { return static_cast<uint32_t>(key >> 8); }

  static constexpr uint64_t kOdd = 0x9e3779b97f4a7c15;
};

// A key is the sum of what its parts give: the match type and the clauses.
inline uint64_t index_key_of_type(uint32_t type) { return (type + 1) * PolicyIndex::kOdd; }
inline uint64_t index_key_of(uint32_t clause, uint64_t value) {
  return std::rotl((value + clause) * PolicyIndex::kOdd, __builtin_ctz(clause));
}
inline uint64_t index_key_of(uint32_t clause, const NamedHead* list) {
  return index_key_of(clause, reinterpret_cast<uintptr_t>(list));
}
uint32_t index_hash(const t_ipaddr& address);

// What notes a change, policy_index_stale, stands where lists can call it, too (lists/named_list.h).
// Makes the policy's index if it waits for that.
void policy_index_refresh(t_pol_ctx* ctx, t_pol_block* block);
// Makes all indexes that wait and somebody uses.
void policy_index_refresh_all(t_pol_ctx* ctx);
// Frees the policy's index for good.
void policy_index_drop(t_pol_ctx* ctx, t_pol_block* block);

}  // namespace pol
