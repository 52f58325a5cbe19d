// SPDX-License-Identifier: Apache-2.0
//
// pol_pfx_index.h - says whether any element of a prefix list matches a prefix, without walking
// them.
//
// What an element asks of a prefix that lies in it is an interval of lengths, whatever the
// operator. So the index is a multibit trie (six address bits a node, children and elements of a
// node in two arrays packed by bitmap) with an interval at each element's place; a query reads one
// node every six bits of its path. Elements that share a place (they differ in host bits only) are
// counted length by length. Adding or removing an element touches one path and allocates uncounted
// memory. An index of all zero bytes is empty.
//
// Invariants
//   1. A node other than a root holds an element or has a child.
//   2. Bit n of `prefixes` is set when slot popcount(prefixes below n) is the element at place n:
//      the places of relative length k are 2^k - 1 up to 2^(k+1) - 2, ordered by their k bits.
//      `below` likewise for children, by the next six bits.
//   3. A slot without counts stands for one element; with counts for `counts->total`.
#pragma once

#include <cstdint>

#include "policy/pol_types.h"

namespace pol {

class PfxIndex {
 public:
  // False when memory runs out; then nothing changed.
  [[nodiscard]] bool add(const t_pol_pfx_record& element);
  // REQUIRES: an element just like this was added and not removed.
  void remove(const t_pol_pfx_record& element);
  // `element` takes the place of `old`, which differs from it in operator and bounds only.
  [[nodiscard]] bool replace(const t_pol_pfx_record& old, const t_pol_pfx_record& element);
  bool matches(const t_ipprefix& prefix) const;
  void clear();

  struct Counts {
    uint32_t total;
    uint32_t holding[256];  // elements that take a prefix of this length
  };

  struct Slot {
    Counts* counts;
    uint8_t low;  // the one element takes lengths low to high; none when low is above high
    uint8_t high;
  };

  struct Node {
    uint64_t prefixes;
    uint64_t below;
    Slot* slots;
    Node* children;
  };

 private:
  Node v4_;
  Node v6_;
  // Elements 0/0 with an operator on the bounds: they take prefixes of every family by length
  // alone.
  uint8_t any_used_;
  Slot any_;
};

}  // namespace pol
