// SPDX-License-Identifier: Apache-2.0
//
// pol_pfx_index.h - finds an element of a prefix list by its prefix, and says whether any element matches a
// prefix, without walking them.
//
// What an element asks of a prefix that lies in it is an interval of lengths, whatever the operator. So the
// index is a multibit trie (six address bits a node, children and elements of a node in two arrays packed by
// bitmap) with the element and its interval at its place; a query reads one node every six bits of its path.
// Elements that share a place (they differ in host bits only) are counted length by length.
//
// The trie finds an element by its prefix, too, where it is the first at its place. All others are in a tree
// by prefix: later ones at a shared place, those that take every family, and those of families without a
// trie. Adding or removing an element touches one path and allocates uncounted memory. An index of all zero
// bytes is empty.
//
// Invariants
//   1. A node other than a root holds an element or has a child.
//   2. Bit n of `prefixes` is set when slot popcount(prefixes below n) is the element at place n: the places
//      of relative length k are 2^k - 1 up to 2^(k+1) - 2, ordered by their k bits. `below` likewise for
//      children, by the next six bits.
//   3. An element is in `others_` exactly when it is not the first of a place in a trie.
#pragma once

#include <cstdint>

#include "base/avl_tree.h"
#include "base/tail_queue.h"
#include "policy/pol_types.h"

// 40 bytes, because a list may hold 100,000: the prefix lies without its padding.
struct t_pfx_entry {
  pol::TailLink<t_pfx_entry> link;
  t_ipaddr addr;
  uint8_t len;
  uint8_t op;  // enum pol_pfx_op; 255 for what lies beyond, which is all alike
  uint8_t min;
  uint8_t max;
};

namespace pol {

class PfxIndex {
 public:
  // The element with that address and length. Meeting one of the prefix's own family that is neither IPv4 nor
  // IPv6 fails an assertion.
  t_pfx_entry* find(const t_ipprefix& prefix) const;
  // False when memory runs out; then nothing changed. REQUIRES: no element has its prefix.
  [[nodiscard]] bool add(t_pfx_entry* element);
  // REQUIRES: `element` was added.
  void remove(t_pfx_entry* element);
  // Gives an element that was added the operator and bounds of `how`; false as add.
  [[nodiscard]] bool change(t_pfx_entry* element, const t_pol_pfx_record& how);
  bool matches(const t_ipprefix& prefix) const;
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

  struct Slot {
    union {
      t_pfx_entry* element;
      SharedPlace* place;
    };
    bool shared;  // `place` counts, else `element` stands alone
    uint8_t low;  // alone, it takes lengths low to high; none when low is above high
    uint8_t high;
  };

  struct Node {
    uint64_t prefixes;
    uint64_t below;
    Slot* slots;
    Node* children;
  };

  struct Other {
    avl_node link;
    t_pfx_entry* element;
  };

  struct Interval {
    uint8_t low;
    uint8_t high;
  };

 private:
  bool add_other(t_pfx_entry* element);
  void remove_other(const t_pfx_entry* element);
  // An element that changes places is `listed` in others_ already, or stays so.
  bool enter_any(t_pfx_entry* element, Interval lengths, bool listed);
  void leave_any(const t_pfx_entry* element, Interval lengths, bool stays_listed);
  bool enter_trie(t_pfx_entry* element, Interval lengths, bool listed);
  void leave_trie(const t_pfx_entry* element, Interval lengths, bool stays_listed);
  t_pfx_entry* first_at(const t_ipaddr& addr, uint8_t length) const;

  Node v4_;
  Node v6_;
  // Elements 0/0 with an operator on the bounds take prefixes of every family by length alone.
  Counts* any_;
  bool has_others_;  // and so a tree that was made
  AvlTree<Other> others_;
};

// Whether this one element takes the prefix: what `matches` says of any.
bool pfx_element_takes(const t_pfx_entry& element, const t_ipprefix& prefix);

}  // namespace pol
