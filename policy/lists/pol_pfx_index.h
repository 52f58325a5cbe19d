// SPDX-License-Identifier: Apache-2.0
//
// pol_pfx_index.h - finds an element of a prefix list by its prefix, and says whether any element
// matches a prefix, without walking them.
//
// What an element asks of a prefix that lies in it is an interval of lengths, whatever the
// operator. So the index is a trie (base/prefix_trie.h) with the element and its interval at its
// place. Elements that share a place (they differ in host bits only) are counted length by length.
//
// The trie finds an element by its prefix, too, where it is the first at its place. All others are
// in a tree by prefix: later ones at a shared place, those that take every family, and those of
// families without a trie. Adding or removing an element touches one path and allocates uncounted
// memory. An index of all zero bytes is empty.
//
// Invariant: an element is in `others_` exactly when it is not the first of a place in a trie.
#pragma once

#include <cstdint>

#include "base/avl_tree.h"
#include "base/prefix_trie.h"
#include "base/tail_queue.h"
#include "policy/pol_types.h"

// Small, because a list may hold 100,000: what is not IPv4 is a t_pfx_entry_wide. Filled by
// pfx_entry_fill.
struct t_pfx_entry {
  pol::TailLink<t_pfx_entry> link;
  uint8_t len;
  uint8_t op : 7;    // enum pol_pfx_op; 127 for what lies beyond, which is all alike
  uint8_t wide : 1;  // a t_pfx_entry_wide
  uint8_t min;
  uint8_t max;
  union {
    uint32_t v4;      // of one that is not wide
    uint32_t family;  // of a wide one
  };
};

struct t_pfx_entry_wide {
  t_pfx_entry entry;
  uint8_t v6[16];
};

namespace pol {

// Lengths of prefixes; none when low is above high.
struct Interval {
  uint8_t low;
  uint8_t high;
};

inline bool pfx_is_wide(const t_ipprefix& prefix) { return prefix.addr.family != KEL_AF_INET; }
t_ipaddr pfx_address(const t_pfx_entry& element);
// REQUIRES: a t_pfx_entry_wide for a prefix that is wide.
void pfx_entry_fill(t_pfx_entry* element, const t_pol_pfx_record& record);

// The lengths that the element takes among prefixes that lie in it: none is below its own.
Interval pfx_lengths_of(const t_pfx_entry& element);
// Elements 0/0 with an operator on the bounds take prefixes of every family by length alone.
bool pfx_takes_every_family(const t_pfx_entry& element);

// Addresses as their bits from the top of the word.
inline uint64_t pfx_bits_v4(const t_ipaddr& addr) { return uint64_t{addr.addr.v4} << 32; }

inline Bits128 pfx_bits_v6(const t_ipaddr& addr) {
  Bits128 bits = 0;
  for (uint8_t byte : addr.addr.v6) bits = (bits << 8) | byte;
  return bits;
}

// As PfxIndex::fetch, for any tries over prefixes that have their memory from `arena`.
void pfx_fetch(const Arena& arena, const TrieCell* v4, const TrieCell* v6,
               const t_ipprefix* const* prefixes, unsigned count);

class PfxIndex {
 public:
  // The element with that address and length. Meeting one of the prefix's own family that is
  // neither IPv4 nor IPv6 fails an assertion.
  t_pfx_entry* find(const t_ipprefix& prefix) const;
  // In one descent, the prefix's element, or a place kept for it; neither where it has no place of
  // its own: an element is added then. A place that is kept is settled or given up before all else.
  // False when memory runs out.
  struct Kept {
    t_pfx_entry* element;
    TrieCell* place;
  };
  [[nodiscard]] bool find_or_keep(const t_ipprefix& prefix, Kept* kept);
  void settle(TrieCell* place, t_pfx_entry* element);
  void give_up(const t_ipprefix& prefix);
  // False when memory runs out; then nothing changed. REQUIRES: no element has its prefix.
  [[nodiscard]] bool add(t_pfx_entry* element);
  // REQUIRES: `element` was added.
  void remove(t_pfx_entry* element);
  // The element with that address and length, removed; null when there is none.
  t_pfx_entry* take(const t_ipprefix& prefix);
  // Gives an element that was added the operator and bounds of `how`; false as add.
  [[nodiscard]] bool change(t_pfx_entry* element, const t_pol_pfx_record& how);
  bool matches(const t_ipprefix& prefix) const;
  // Has the memory fetched that `matches` is about to read for these prefixes, at most kFetched,
  // where there is so much of it that this pays.
  static constexpr unsigned kFetched = 16;
  void fetch(const t_ipprefix* const* prefixes, unsigned count) const;
  // Forgets all elements.
  void clear();

  struct Counts {
    uint32_t total;
    uint32_t holding[256];  // elements that take a prefix of this length
  };

  struct SharedPlace {
    t_pfx_entry* first;  // null once it was removed
    Counts counts;
  };

  struct Other {
    avl_node link;
    t_pfx_entry* element;
  };

 private:
  TrieCell* cell_find(const t_ipaddr& addr, unsigned length) const {
    TriePath path;
    return cell_find(addr, length, &path);
  }
  TrieCell* cell_find(const t_ipaddr& addr, unsigned length, TriePath* path) const;
  TrieCell* cell_find_or_add(const t_ipaddr& addr, unsigned length);
  void cell_remove(uint32_t family, const TriePath& path);
  bool add_other(t_pfx_entry* element);
  void remove_other(const t_pfx_entry* element);
  // An element that changes places is `listed` in others_ already, or stays so.
  bool enter_any(t_pfx_entry* element, Interval lengths, bool listed);
  void leave_any(const t_pfx_entry* element, Interval lengths, bool stays_listed);
  bool enter_trie(t_pfx_entry* element, Interval lengths, bool listed);
  void leave_trie(const t_pfx_entry* element, Interval lengths, bool stays_listed);
  bool move(t_pfx_entry* element, bool was_any, Interval old, Interval lengths);
  t_pfx_entry* find_at(const TrieCell& cell, const t_ipprefix& prefix) const;
  t_pfx_entry* find_other(const t_ipprefix& prefix) const;

  // What evaluation reads stands first, side by side.
  PrefixTrie<uint64_t> v4_;
  PrefixTrie<Bits128> v6_;
  Counts* any_;      // of elements that take every family
  bool has_others_;  // and so a tree that was made
  Arena arena_;
  AvlTree<Other> others_;
};

// Whether this one element takes the prefix: what `matches` says of any.
bool pfx_element_takes(const t_pfx_entry& element, const t_ipprefix& prefix);

}  // namespace pol
