// SPDX-License-Identifier: Apache-2.0
#include "base/prefix_trie.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace pol {

#ifdef __x86_64__
const bool g_cpu_counts = __builtin_cpu_supports("popcnt") != 0;
#else
const bool g_cpu_counts = true;
#endif

namespace {

// How many cells an array holds, by class. What an array no longer needs is given back in place,
// without memory for a smaller one.
constexpr uint8_t kSizes[] = {1, 2, 3, 4, 6, 8, 12, 16, 24, 32, 48, 64, 96, 128};
static_assert(std::size(kSizes) <= Arena::kClasses);

constexpr std::array<uint8_t, 129> kClassOf = [] {
  std::array<uint8_t, 129> classes = {};
  uint8_t size_class = 0;
  for (unsigned count = 1; count <= 128; ++count) {
    if (count > kSizes[size_class]) ++size_class;
    classes[count] = size_class;
  }
  return classes;
}();

constexpr unsigned kMaxSkip = 64 / kTrieStride * kTrieStride;

inline unsigned count_bits(uint64_t v) {
  return g_cpu_counts ? CountByInstruction::of(v) : CountByTricks::of(v);
}
inline unsigned rank(uint64_t map, uint64_t bit) { return count_bits(map & (bit - 1)); }

// Gives cells back as blocks of as few classes as they make.
void give_cells(Arena* arena, TrieCell* cells, unsigned count) {
  while (count > 0) {
    unsigned size_class = kClassOf[count];
    if (kSizes[size_class] > count) --size_class;
    arena->give(cells, size_class);
    cells += kSizes[size_class];
    count -= kSizes[size_class];
  }
}

// Of the smallest block given back that is large enough: arrays that grew leave many.
TrieCell* take_cells(Arena* arena, unsigned count) {
  const unsigned size_class = kClassOf[count];
  const uint32_t fitting = arena->given() >> size_class;
  if (fitting == 0) {
    return static_cast<TrieCell*>(arena->take_new(kSizes[size_class] * sizeof(TrieCell)));
  }
  const unsigned found = size_class + static_cast<unsigned>(__builtin_ctz(fitting));
  auto* cells = static_cast<TrieCell*>(arena->take_given(found));
  give_cells(arena, cells + kSizes[size_class], kSizes[found] - kSizes[size_class]);
  return cells;
}

unsigned cells_of(const TrieCell& node) {
  return count_bits(node.prefixes) + count_bits(node.below);
}

// The bits that count, of `key`.
uint64_t cut(uint64_t key, unsigned bits) {
  return bits == 0 ? 0 : key & ~uint64_t{0} << (64 - bits);
}

// Makes room for a zeroed cell at index `at` of the node's array; null when memory runs out. The
// caller marks it in its map.
TrieCell* open_cell(Arena* arena, TrieCell* node, unsigned at) {
  const unsigned count = cells_of(*node);
  if (count == 0 || kClassOf[count] != kClassOf[count + 1]) {
    TrieCell* grown = take_cells(arena, count + 1);
    if (grown == nullptr) return nullptr;
    if (count != 0) {
      memcpy(grown, node->cells, at * sizeof *grown);
      memcpy(grown + at + 1, node->cells + at, (count - at) * sizeof *grown);
      arena->give(node->cells, kClassOf[count]);
    }
    node->cells = grown;
  } else {
    memmove(node->cells + at + 1, node->cells + at, (count - at) * sizeof *node->cells);
  }
  node->cells[at] = {};
  return node->cells + at;
}

TrieCell* add_value(Arena* arena, TrieCell* node, uint64_t place) {
  TrieCell* cell = open_cell(arena, node, rank(node->prefixes, place));
  if (cell != nullptr) node->prefixes |= place;
  return cell;
}

TrieCell* add_below(Arena* arena, TrieCell* node, uint64_t turn) {
  TrieCell* cell = open_cell(arena, node, count_bits(node->prefixes) + rank(node->below, turn));
  if (cell != nullptr) node->below |= turn;
  return cell;
}

// Takes a cell out that `map`, one of the node's two, marks with `bit`.
void close_cell(Arena* arena, TrieCell* node, uint64_t* map, uint64_t bit) {
  const unsigned count = cells_of(*node);
  unsigned at = rank(*map, bit);
  if (map == &node->below) at += count_bits(node->prefixes);
  *map &= ~bit;
  memmove(node->cells + at, node->cells + at + 1, (count - at - 1) * sizeof *node->cells);
  const unsigned had = kSizes[kClassOf[count]];
  const unsigned keeps = count > 1 ? kSizes[kClassOf[count - 1]] : 0;
  if (keeps != had) give_cells(arena, node->cells + keeps, had - keeps);
  if (keeps == 0) node->cells = nullptr;
}

template <class Bits>
uint64_t place_of(Bits key, unsigned length) {
  return uint64_t{1} << ((1u << length) - 1 + (next_chunk(key) >> (kTrieStride - length)));
}

template <class Bits>
uint64_t turn_of(Bits key) {
  return uint64_t{1} << next_chunk(key);
}

void make_leaf(TrieCell* cell, uint64_t key, unsigned bits) {
  cell->info.kind = kTrieLeaf;
  cell->info.bits = static_cast<uint8_t>(bits);
  cell->key = cut(key, bits);
}

// Makes the cell lead to `node` over `bits` that all below has in common. False when memory runs
// out.
bool lead_to(Arena* arena, TrieCell* cell, uint64_t key, unsigned bits, const TrieCell& node) {
  if (bits == 0) {
    *cell = node;
    return true;
  }
  TrieCell* behind = take_cells(arena, 1);
  if (behind == nullptr) return false;
  *behind = node;
  *cell = {};
  cell->info.kind = kTrieSkip;
  cell->info.bits = static_cast<uint8_t>(bits);
  cell->key = cut(key, bits);
  cell->cells = behind;
  return true;
}

// The node that a cell leads to, which may be the cell itself.
TrieCell* node_behind(TrieCell* cell) { return cell->info.kind == kTrieSkip ? cell->cells : cell; }

// How many whole chunks two keys have in common, in bits, of at most `limit` bits.
unsigned common_bits(uint64_t a, uint64_t b, unsigned limit) {
  const uint64_t differ = a ^ b;
  const unsigned same = differ == 0 ? 64 : static_cast<unsigned>(__builtin_clzll(differ));
  return std::min({same, limit, kMaxSkip}) / kTrieStride * kTrieStride;
}

// Makes a leaf a node, so that others may lie beside its value: `common` bits on.
bool open_leaf(Arena* arena, TrieCell* cell, unsigned common) {
  const TrieCell leaf = *cell;
  TrieCell node = {};
  const unsigned rest = leaf.info.bits - common;
  const uint64_t key = common == 0 ? leaf.key : leaf.key << common;
  TrieCell* moved = nullptr;
  if (rest < kTrieStride) {
    moved = add_value(arena, &node, place_of(key, rest));
  } else {
    moved = add_below(arena, &node, turn_of(key));
  }
  if (moved == nullptr) return false;
  *moved = leaf;
  if (rest < kTrieStride) {
    moved->info.kind = 0;
    moved->info.bits = 0;
    moved->key = 0;
  } else {
    make_leaf(moved, key << kTrieStride, rest - kTrieStride);
  }
  if (lead_to(arena, cell, leaf.key, common, node)) return true;
  arena->give(node.cells, kClassOf[1]);
  return false;
}

// Parts a skip after `common` of its bits, so that others may leave its way there.
bool part_skip(Arena* arena, TrieCell* cell, unsigned common) {
  const TrieCell skip = *cell;
  const unsigned rest = skip.info.bits - common - kTrieStride;
  const uint64_t key = common == 0 ? skip.key : skip.key << common;
  TrieCell node = {};
  TrieCell* below = add_below(arena, &node, turn_of(key));
  if (below == nullptr) return false;
  if (!lead_to(arena, cell, skip.key, common, node)) {
    arena->give(node.cells, kClassOf[1]);
    return false;
  }
  if (rest == 0) {
    *below = *skip.cells;
    arena->give(skip.cells, kClassOf[1]);
  } else {
    *below = skip;
    below->info.bits = static_cast<uint8_t>(rest);
    below->key = key << kTrieStride;
  }
  return true;
}

// The cell that leads from the step's node on.
TrieCell* cell_of(const TrieStep& step) {
  return step.node->cells + count_bits(step.node->prefixes) + rank(step.node->below, step.bit);
}

// Makes a cell that leads to one value alone a leaf, where the bits on its way fit.
bool fold(Arena* arena, TrieCell* cell) {
  TrieCell* node = node_behind(cell);
  if (cells_of(*node) != 1) return false;
  const TrieCell last = *node->cells;
  unsigned bits = 0;
  uint64_t key = 0;
  if (node->prefixes != 0) {
    const auto place = static_cast<unsigned>(__builtin_ctzll(node->prefixes));
    while ((2u << bits) - 1 <= place) ++bits;
    if (bits != 0) key = uint64_t{place + 1 - (1u << bits)} << (64 - bits);
  } else {
    if (last.info.kind != kTrieLeaf) return false;
    key = static_cast<uint64_t>(__builtin_ctzll(node->below)) << (64 - kTrieStride);
    key |= last.key >> kTrieStride;
    bits = kTrieStride + last.info.bits;
  }
  const bool skips = cell->info.kind == kTrieSkip;
  const unsigned skipped = skips ? cell->info.bits : 0;
  if (skipped + bits > 64) return false;
  if (skips) key = cell->key | key >> skipped;
  arena->give(node->cells, kClassOf[1]);
  if (skips) arena->give(node, kClassOf[1]);
  *cell = last;
  make_leaf(cell, key, skipped + bits);
  return true;
}

// Takes away what a removal left empty, and folds what it left alone.
void tidy(Arena* arena, const TrieStep* steps, unsigned depth) {
  for (; depth > 0; --depth) {
    const TrieStep& step = steps[depth - 1];
    TrieCell* cell = cell_of(step);
    if (cell->info.kind == kTrieLeaf) continue;
    TrieCell* node = node_behind(cell);
    if (cells_of(*node) == 0) {
      if (node != cell) arena->give(node, kClassOf[1]);
      close_cell(arena, step.node, &step.node->below, step.bit);
    } else if (!fold(arena, cell)) {
      return;
    }
  }
}

// Where a descent stands: at a node, so many of the key's bits left.
template <class Bits>
struct Place {
  TrieCell* node;
  Bits key;
  unsigned length;

  void pass(unsigned bits) {
    key <<= bits;
    length -= bits;
  }
};

// Goes down to the prefix's value; or, when there is none, to the last node on its path, and null.
template <class Count, class Bits>
[[gnu::always_inline]] inline TrieCell* descend(Place<Bits>* place, TriePath* path) {
  path->depth = 0;
  for (;;) {
    TrieCell* node = place->node;
    if (place->length < kTrieStride) {
      const uint64_t bit = place_of(place->key, place->length);
      path->last = {node, bit};
      path->leaf = false;
      if ((node->prefixes & bit) == 0) return nullptr;
      return node->cells + Count::of(node->prefixes & (bit - 1));
    }
    const TrieStep step = {node, turn_of(place->key)};
    if ((node->below & step.bit) == 0) return nullptr;
    TrieCell* cell =
        node->cells + Count::of(node->prefixes) + Count::of(node->below & (step.bit - 1));
    const Bits key = place->key << kTrieStride;
    const unsigned length = place->length - kTrieStride;
    unsigned bits = 0;
    if ((cell->info.kind & kTrieLeaf) != 0) {
      bits = cell->info.bits;
      if (length < bits || trie_differs(*cell, top_bits(key))) return nullptr;
      if (cell->info.kind == kTrieLeaf) {
        path->last = step;
        path->leaf = true;
        return length == bits ? cell : nullptr;
      }
    }
    path->steps[path->depth++] = step;
    *place = {bits != 0 ? cell->cells : cell, key << bits, length - bits};
  }
}

template <class Bits>
TrieCell* descend_any(Place<Bits>* place, TriePath* path) {
  return g_cpu_counts ? descend<CountByInstruction>(place, path)
                      : descend<CountByTricks>(place, path);
}

}  // namespace

// Who may not change the trie changes none of what the path leads to.
template <class Bits>
TrieCell* PrefixTrie<Bits>::find(Bits key, unsigned length, TriePath* path) const {
  Place<Bits> place = {const_cast<TrieCell*>(&root_), key, length};
  return descend_any(&place, path);
}

template <class Bits>
TrieCell* PrefixTrie<Bits>::find_or_add(Arena* arena, Bits key, unsigned length) {
  Place<Bits> at = {&root_, key, length};
  TriePath path;
  if (TrieCell* found = descend_any(&at, &path)) return found;
  for (;;) {
    if (at.length < kTrieStride) {
      const uint64_t place = place_of(at.key, at.length);
      if ((at.node->prefixes & place) != 0) return at.node->cells + rank(at.node->prefixes, place);
      if (TrieCell* cell = add_value(arena, at.node, place)) return cell;
      break;
    }
    const TrieStep step = {at.node, turn_of(at.key)};
    const bool found = (at.node->below & step.bit) != 0;
    TrieCell* cell = found ? cell_of(step) : add_below(arena, at.node, step.bit);
    if (cell == nullptr) break;
    path.steps[path.depth++] = step;
    at.pass(kTrieStride);
    const uint64_t top = top_bits(at.key);
    if (!found) {
      if (at.length <= 64) {
        make_leaf(cell, top, at.length);
        return cell;
      }
      if (!lead_to(arena, cell, top, kMaxSkip, {})) break;
    } else if (cell->info.kind == kTrieLeaf) {
      const unsigned bits = cell->info.bits;
      if (at.length == bits && !trie_differs(*cell, top)) return cell;
      if (!open_leaf(arena, cell, common_bits(cell->key, top, std::min(bits, at.length)))) break;
    } else if (cell->info.kind == kTrieSkip &&
               (at.length < cell->info.bits || trie_differs(*cell, top))) {
      const unsigned most = std::min(unsigned{cell->info.bits}, at.length);
      if (!part_skip(arena, cell, common_bits(cell->key, top, most))) break;
    }
    if (cell->info.kind == kTrieSkip) at.pass(cell->info.bits);
    at.node = node_behind(cell);
  }
  tidy(arena, path.steps, path.depth);
  return nullptr;
}

template <class Bits>
void PrefixTrie<Bits>::remove(Arena* arena, const TriePath& path) {
  TrieCell* node = path.last.node;
  close_cell(arena, node, path.leaf ? &node->below : &node->prefixes, path.last.bit);
  tidy(arena, path.steps, path.depth);
}

template class PrefixTrie<uint64_t>;
template class PrefixTrie<Bits128>;

}  // namespace pol
