// SPDX-License-Identifier: Apache-2.0
//
// prefix_trie.h - values by prefix, and in one descent all that lie on a prefix's path.
//
// A multibit trie: six bits of the key a node. A node is one cell of 24 bytes: two bitmaps and an
// array of cells, packed by them; first the values whose prefixes end within the node's six bits,
// then what lies below, by its next six bits. What lies below is a node, or a leaf (a value and the
// bits that lead on to it, where it is alone), or a skip (bits that all below have in common, and
// the node behind them). So a descent reads one cell every six bits, most values cost one cell, and
// adding or removing one touches one path.
//
// A value has a range of lengths, low to high: what it is good for is the caller's, but a prefix
// shorter than `low` is never told of it. REQUIRES: low is not below the prefix's own length.
//
// A trie of all zero bytes is empty. Keys stand at the top of their word: 32 bits in 64, or 128.
//
// Invariants
//   1. Bit n of `prefixes` is set when cell popcount(prefixes below n) is the value at place n: the places
//      of relative length k are 2^k - 1 up to 2^(k+1) - 2, ordered by their k bits. `below` likewise for
//      the cells after these, by the next six bits. Bit 63 of `prefixes` is never set: it tells leaves and
//      skips from nodes.
//   2. A node other than the root holds a value or something below.
//   3. The bits of a leaf's or skip's `key` beyond `bits` are zero.
#pragma once

#include <array>
#include <cstdint>

#include "base/arena.h"

namespace pol {

__extension__ using Bits128 = unsigned __int128;

struct TrieCell {
  struct Info {
    uint8_t low;    // of a value
    uint8_t high;   // of a value
    uint8_t bits;   // of a leaf or skip: how many of `key` count
    uint8_t flag;   // of a value: the caller's
    uint32_t kind;  // of a leaf or skip, 0 in a value within a node
  };
  union {
    uint64_t prefixes;
    Info info;
  };
  union {
    uint64_t below;
    uint64_t key;
  };
  union {
    TrieCell* cells;
    void* value;
  };
};
static_assert(sizeof(TrieCell) == 24);

constexpr unsigned kTrieStride = 6;
constexpr unsigned kTrieDepth = 128 / kTrieStride + 1;  // nodes on a path, at most
constexpr uint32_t kTrieLeaf = 0x80000000;
constexpr uint32_t kTrieSkip = 0xc0000000;

// For the next six bits of a key, the places of the prefixes of relative length 0 to 5 on its path.
constexpr std::array<uint64_t, 64> kTriePaths = [] {
  std::array<uint64_t, 64> paths = {};
  for (unsigned chunk = 0; chunk < 64; ++chunk) {
    for (unsigned length = 0; length < kTrieStride; ++length) {
      paths[chunk] |= uint64_t{1} << ((1u << length) - 1 + (chunk >> (kTrieStride - length)));
    }
  }
  return paths;
}();

// Bit tricks instead of the builtin, which is a call where the baseline CPU has no such
// instruction.
struct CountByTricks {
  static unsigned of(uint64_t v) {
    v -= (v >> 1) & 0x5555555555555555u;
    v = (v & 0x3333333333333333u) + ((v >> 2) & 0x3333333333333333u);
    v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0fu;
    return static_cast<unsigned>((v * 0x0101010101010101u) >> 56);
  }
};

// For CPUs that have it, in code that is compiled for all.
struct CountByInstruction {
  static unsigned of(uint64_t v) {
#ifdef __x86_64__
    uint64_t count;
    __asm__("popcnt %1, %0" : "=r"(count) : "r"(v) : "cc");
    return static_cast<unsigned>(count);
#else
    return static_cast<unsigned>(__builtin_popcountll(v));
#endif
  }
};

extern const bool g_cpu_counts;

inline uint64_t top_bits(uint64_t key) { return key; }
inline uint64_t top_bits(Bits128 key) { return static_cast<uint64_t>(key >> 64); }

template <class Bits>
unsigned next_chunk(Bits key) {
  return static_cast<unsigned>(top_bits(key) >> (64 - kTrieStride));
}

// Whether a leaf or skip does not lie on the key's path.
inline bool trie_differs(const TrieCell& cell, uint64_t top) {
  return cell.info.bits != 0 && (top ^ cell.key) >> (64 - cell.info.bits) != 0;
}

// One step down, for descents that go side by side: the cell below, or null where the path ends.
template <class Count, class Bits>
[[gnu::always_inline]] inline const TrieCell* trie_below(const TrieCell* node, Bits key) {
  const uint64_t bit = uint64_t{1} << next_chunk(key);
  if ((node->below & bit) == 0) return nullptr;
  return node->cells + Count::of(node->prefixes) + Count::of(node->below & (bit - 1));
}

// Calls `visit(cell)` for the values on the path of key/length, shortest first, until one returns
// true.
template <class Count, class Bits, class Visit>
[[gnu::always_inline]] inline bool trie_visit(const TrieCell* node, Bits key, unsigned length,
                                              Visit&& visit) {
  for (;;) {
    uint64_t hits = node->prefixes & kTriePaths[next_chunk(key)];
    while (hits != 0) {
      const uint64_t bit = hits & (~hits + 1);
      if (visit(node->cells[Count::of(node->prefixes & (bit - 1))])) return true;
      hits ^= bit;
    }
    if (length < kTrieStride) return false;
    const TrieCell* cell = trie_below<Count>(node, key);
    if (cell == nullptr) return false;
    key <<= kTrieStride;
    length -= kTrieStride;
    node = cell;
    if ((cell->info.kind & kTrieLeaf) == 0) continue;
    const unsigned bits = cell->info.bits;
    if (trie_differs(*cell, top_bits(key))) return false;
    if (cell->info.kind != kTrieSkip) return visit(*cell);
    if (length < bits) return false;
    key <<= bits;
    length -= bits;
    node = cell->cells;
  }
}

// Goes down the paths of several keys side by side and has the memory on them fetched, so that the
// descents that follow wait for it together and not one after the other.
template <class Count, class Bits>
[[gnu::always_inline]] inline void trie_fetch(const TrieCell* root, Bits* keys, uint8_t* lengths,
                                              unsigned count) {
  constexpr unsigned kMost = 16;
  // For all that compilers know, what only fetches has no effect and could go.
  __asm__ volatile("");
  const TrieCell* nodes[kMost];
  for (unsigned i = 0; i < count; ++i) nodes[i] = root;
  for (unsigned left = count; left > 0;) {
    left = 0;
    for (unsigned i = 0; i < count; ++i) {
      const TrieCell* node = nodes[i];
      if (node == nullptr) continue;
      nodes[i] = nullptr;
      unsigned bits = 0;
      if ((node->info.kind & kTrieLeaf) != 0) {
        bits = node->info.bits;
        if (node->info.kind != kTrieSkip || lengths[i] < bits) continue;
        nodes[i] = node->cells;
      } else {
        const uint64_t hits = node->prefixes & kTriePaths[next_chunk(keys[i])];
        if (hits != 0) {
          __builtin_prefetch(node->cells + Count::of(node->prefixes & ((hits & (~hits + 1)) - 1)));
        }
        bits = kTrieStride;
        if (lengths[i] < bits) continue;
        nodes[i] = trie_below<Count>(node, keys[i]);
      }
      keys[i] <<= bits;
      lengths[i] = static_cast<uint8_t>(lengths[i] - bits);
      if (nodes[i] == nullptr) continue;
      __builtin_prefetch(nodes[i]);
      ++left;
    }
  }
}

// A node on a path, and its bit that leads on.
struct TrieStep {
  TrieCell* node;
  uint64_t bit;
};

// The way to a value that was found: good for its removal until any value comes or goes.
struct TriePath {
  TrieStep steps[kTrieDepth];
  unsigned depth;
  TrieStep last;
  bool leaf;  // the last bit is one of `below`
};

template <class Bits>
class PrefixTrie {
 public:
  const TrieCell* root() const { return &root_; }
  bool empty() const { return (root_.prefixes | root_.below) == 0; }
  // The value's cell; it moves when values come and go.
  TrieCell* find(Bits key, unsigned length) const {
    TriePath path;
    return find(key, length, &path);
  }
  // Tells the way, too.
  TrieCell* find(Bits key, unsigned length, TriePath* path) const;
  // The value's cell, made with no value if need be; null when memory runs out, and nothing
  // changed.
  [[nodiscard]] TrieCell* find_or_add(Arena* arena, Bits key, unsigned length);
  void remove(Arena* arena, const TriePath& path);
  // Calls `visit(cell)` for every value; as deep as the trie.
  template <class Visit>
  void each(Visit visit) const {
    each_below(root_, visit);
  }
  // REQUIRES: the arena is released.
  void forget() { root_ = {}; }

 private:
  template <class Visit>
  static void each_below(const TrieCell& node, Visit& visit) {
    const unsigned values = CountByTricks::of(node.prefixes);
    const unsigned all = values + CountByTricks::of(node.below);
    for (unsigned i = 0; i < all; ++i) {
      TrieCell& cell = node.cells[i];
      if (i < values || cell.info.kind == kTrieLeaf) {
        visit(cell);
      } else {
        each_below(cell.info.kind == kTrieSkip ? *cell.cells : cell, visit);
      }
    }
  }

  TrieCell root_;
};

}  // namespace pol
