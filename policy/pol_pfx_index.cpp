// SPDX-License-Identifier: Apache-2.0
#include "pol_pfx_index.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/pol_memory.h"

namespace pol {
namespace {

using Slot = PfxIndex::Slot;
using Node = PfxIndex::Node;
using Counts = PfxIndex::Counts;

__extension__ using Bits128 = unsigned __int128;

constexpr unsigned kStride = 6;
constexpr unsigned kMaxDepth = 128 / kStride + 1;

// For the next six bits of an address, the places of the prefixes of relative length 0 to 5 on its
// path.
constexpr std::array<uint64_t, 64> kPaths = [] {
  std::array<uint64_t, 64> paths = {};
  for (unsigned chunk = 0; chunk < 64; ++chunk) {
    for (unsigned length = 0; length < kStride; ++length) {
      paths[chunk] |= uint64_t{1} << ((1u << length) - 1 + (chunk >> (kStride - length)));
    }
  }
  return paths;
}();

// Bit tricks instead of the builtin: the baseline CPU has no such instruction, the builtin is a
// call.
inline unsigned count_bits(uint64_t v) {
  v -= (v >> 1) & 0x5555555555555555u;
  v = (v & 0x3333333333333333u) + ((v >> 2) & 0x3333333333333333u);
  v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0fu;
  return static_cast<unsigned>((v * 0x0101010101010101u) >> 56);
}

inline unsigned rank(uint64_t map, uint64_t bit) { return count_bits(map & (bit - 1)); }

// Addresses as their bits from the top of the word, so that the next six are a shift away.
uint64_t address_bits_v4(const t_ipaddr& addr) { return uint64_t{addr.addr.v4} << 32; }

Bits128 address_bits_v6(const t_ipaddr& addr) {
  Bits128 bits = 0;
  for (uint8_t byte : addr.addr.v6) bits = (bits << 8) | byte;
  return bits;
}

template <class Bits>
unsigned next_chunk(Bits bits) {
  return static_cast<unsigned>(bits >> (sizeof(Bits) * 8 - kStride));
}

struct Interval {
  uint8_t low;
  uint8_t high;
};

// The lengths that the element takes among prefixes that lie in it.
Interval lengths_of(const t_pol_pfx_record& element) {
  int own = element.prefix.len;
  int min = element.min;
  int max = element.max;
  int low = 1;
  int high = 0;
  switch (element.op) {
    case 0:
    case POL_PFX_EQ:
      low = own;
      high = own;
      break;
    case POL_PFX_NE:
      low = own + 1;
      high = 255;
      break;
    case POL_PFX_RANGE:
      low = min;
      high = max;
      break;
    case POL_PFX_XRANGE:
      low = min + 1;
      high = max - 1;
      break;
    case POL_PFX_LE:
      low = own;
      high = max;
      break;
    case POL_PFX_LT:
      low = own;
      high = min - 1;
      break;
    case POL_PFX_GE:
      low = min;
      high = 255;
      break;
    case POL_PFX_GT:
      low = min + 1;
      high = 255;
      break;
    default:
      break;
  }
  low = std::max(low, own);
  if (low > high) return {1, 0};
  return {static_cast<uint8_t>(low), static_cast<uint8_t>(high)};
}

bool takes_every_family(const t_pol_pfx_record& element) {
  static constexpr uint8_t kZero[16] = {};
  if (element.prefix.len != 0) return false;
  if (element.op < POL_PFX_RANGE || element.op > POL_PFX_GT) return false;
  if (element.op == POL_PFX_EQ || element.op == POL_PFX_NE) return false;
  const t_ipaddr& addr = element.prefix.addr;
  if (addr.family == KEL_AF_INET) return addr.addr.v4 == 0;
  return memcmp(addr.addr.v6, kZero, sizeof kZero) == 0;
}

inline bool slot_takes(const Slot& slot, uint8_t length) {
  if (slot.counts != nullptr) return slot.counts->holding[length] != 0;
  return slot.low <= length && length <= slot.high;
}

void count(Counts* counts, Interval lengths, int by) {
  for (int length = lengths.low; length <= lengths.high; ++length) {
    counts->holding[length] += static_cast<uint32_t>(by);
  }
}

// One more element at a place that has some.
bool slot_join(Slot* slot, Interval lengths) {
  if (slot->counts == nullptr) {
    Counts* counts = alloc<Counts>(MEM_UNCOUNTED);
    if (counts == nullptr) return false;
    counts->total = 1;
    count(counts, {slot->low, slot->high}, 1);
    slot->counts = counts;
  }
  ++slot->counts->total;
  count(slot->counts, lengths, 1);
  return true;
}

// One element fewer; false when it was the last.
bool slot_leave(Slot* slot, Interval lengths) {
  if (slot->counts == nullptr) return false;
  count(slot->counts, lengths, -1);
  if (--slot->counts->total > 0) return true;
  pol_free(slot->counts, MEM_UNCOUNTED);
  slot->counts = nullptr;
  return false;
}

void slot_change(Slot* slot, Interval old, Interval lengths) {
  if (slot->counts != nullptr) {
    count(slot->counts, old, -1);
    count(slot->counts, lengths, 1);
  } else {
    *slot = {nullptr, lengths.low, lengths.high};
  }
}

// Makes room for a zeroed member of a packed array at the rank of `bit`; null when memory runs out.
template <class T>
T* array_insert(T** array, uint64_t* map, uint64_t bit) {
  unsigned size = count_bits(*map);
  unsigned at = rank(*map, bit);
  auto* grown = static_cast<T*>(pol_malloc((size + 1) * sizeof(T), MEM_UNCOUNTED));
  if (grown == nullptr) return nullptr;
  std::copy_n(*array, at, grown);
  grown[at] = {};
  std::copy_n(*array + at, size - at, grown + at + 1);
  pol_free(*array, MEM_UNCOUNTED);
  *array = grown;
  *map |= bit;
  return grown + at;
}

template <class T>
void array_remove(T** array, uint64_t* map, uint64_t bit) {
  unsigned at = rank(*map, bit);
  *map &= ~bit;
  unsigned size = count_bits(*map);
  if (size == 0) {
    pol_free(*array, MEM_UNCOUNTED);
    *array = nullptr;
    return;
  }
  std::copy(*array + at + 1, *array + size + 1, *array + at);
  // An array that cannot be made smaller stays as it is.
  void* smaller = pol_realloc(*array, size * sizeof(T));
  if (smaller != nullptr) *array = static_cast<T*>(smaller);
}

// The nodes from the root to an element's place.
struct Path {
  Node* node[kMaxDepth];
  uint64_t turn[kMaxDepth];  // bit of the child taken
  unsigned depth;
  uint64_t place;  // bit in node[depth]->prefixes
};

void prune(const Path& path) {
  for (unsigned depth = path.depth; depth > 0; --depth) {
    const Node* node = path.node[depth];
    if (node->prefixes != 0 || node->below != 0) return;
    Node* parent = path.node[depth - 1];
    array_remove(&parent->children, &parent->below, path.turn[depth - 1]);
  }
}

// Goes to the element's node; makes nodes on the way if `make`. False when one is missing.
template <class Bits>
bool descend(Node* root, Bits bits, unsigned length, bool make, Path* path) {
  path->node[0] = root;
  unsigned last = length / kStride;
  for (path->depth = 0; path->depth < last; ++path->depth, bits <<= kStride) {
    Node* node = path->node[path->depth];
    uint64_t bit = uint64_t{1} << next_chunk(bits);
    Node* child = nullptr;
    if ((node->below & bit) != 0) {
      child = node->children + rank(node->below, bit);
    } else if (make) {
      child = array_insert(&node->children, &node->below, bit);
    }
    if (child == nullptr) return false;
    path->turn[path->depth] = bit;
    path->node[path->depth + 1] = child;
  }
  unsigned rest = length % kStride;
  path->place = uint64_t{1} << ((1u << rest) - 1 + (next_chunk(bits) >> (kStride - rest)));
  return true;
}

bool find_place(Node* v4, Node* v6, const t_ipprefix& prefix, bool make, Path* path) {
  if (prefix.addr.family == KEL_AF_INET) {
    return descend(v4, address_bits_v4(prefix.addr), std::min<unsigned>(prefix.len, 32), make,
                   path);
  }
  return descend(v6, address_bits_v6(prefix.addr), std::min<unsigned>(prefix.len, 128), make, path);
}

bool is_indexed(const t_ipprefix& prefix) {
  return prefix.addr.family == KEL_AF_INET || prefix.addr.family == KEL_AF_INET6;
}

Slot* slot_at(const Path& path) {
  const Node* node = path.node[path.depth];
  return node->slots + rank(node->prefixes, path.place);
}

template <class Bits>
bool walk(const Node* node, Bits bits, uint8_t length) {
  for (unsigned depth_bits = 0; depth_bits <= length; depth_bits += kStride, bits <<= kStride) {
    unsigned chunk = next_chunk(bits);
    uint64_t hits = node->prefixes & kPaths[chunk];
    while (hits != 0) {
      uint64_t bit = hits & (~hits + 1);
      if (slot_takes(node->slots[rank(node->prefixes, bit)], length)) return true;
      hits ^= bit;
    }
    uint64_t bit = uint64_t{1} << chunk;
    if ((node->below & bit) == 0) return false;
    node = node->children + rank(node->below, bit);
  }
  return false;
}

// As deep as the trie: at most kMaxDepth.
void free_below(Node* node) {
  for (unsigned i = 0, n = count_bits(node->prefixes); i < n; ++i) {
    pol_free(node->slots[i].counts, MEM_UNCOUNTED);
  }
  for (unsigned i = 0, n = count_bits(node->below); i < n; ++i) free_below(&node->children[i]);
  pol_free(node->slots, MEM_UNCOUNTED);
  pol_free(node->children, MEM_UNCOUNTED);
  *node = {};
}

}  // namespace

bool PfxIndex::add(const t_pol_pfx_record& element) {
  Interval lengths = lengths_of(element);
  if (takes_every_family(element)) {
    if (any_used_ != 0) return slot_join(&any_, lengths);
    any_used_ = 1;
    any_ = {nullptr, lengths.low, lengths.high};
    return true;
  }
  if (!is_indexed(element.prefix)) return true;
  Path path;
  bool done = false;
  if (find_place(&v4_, &v6_, element.prefix, true, &path)) {
    Node* node = path.node[path.depth];
    if ((node->prefixes & path.place) != 0) return slot_join(slot_at(path), lengths);
    Slot* slot = array_insert(&node->slots, &node->prefixes, path.place);
    done = slot != nullptr;
    if (done) *slot = {nullptr, lengths.low, lengths.high};
  }
  if (!done) prune(path);
  return done;
}

void PfxIndex::remove(const t_pol_pfx_record& element) {
  Interval lengths = lengths_of(element);
  if (takes_every_family(element)) {
    if (!slot_leave(&any_, lengths)) any_used_ = 0;
    return;
  }
  Path path;
  if (!is_indexed(element.prefix) || !find_place(&v4_, &v6_, element.prefix, false, &path)) return;
  if (slot_leave(slot_at(path), lengths)) return;
  Node* node = path.node[path.depth];
  array_remove(&node->slots, &node->prefixes, path.place);
  prune(path);
}

bool PfxIndex::replace(const t_pol_pfx_record& old, const t_pol_pfx_record& element) {
  if (takes_every_family(old) != takes_every_family(element)) {
    if (!add(element)) return false;
    remove(old);
    return true;
  }
  Path path;
  if (takes_every_family(old)) {
    slot_change(&any_, lengths_of(old), lengths_of(element));
  } else if (is_indexed(old.prefix) && find_place(&v4_, &v6_, old.prefix, false, &path)) {
    slot_change(slot_at(path), lengths_of(old), lengths_of(element));
  }
  return true;
}

bool PfxIndex::matches(const t_ipprefix& prefix) const {
  if (any_used_ != 0 && slot_takes(any_, prefix.len)) return true;
  if (prefix.addr.family == KEL_AF_INET) {
    return walk(&v4_, address_bits_v4(prefix.addr), prefix.len);
  }
  if (prefix.addr.family == KEL_AF_INET6) {
    return walk(&v6_, address_bits_v6(prefix.addr), prefix.len);
  }
  return false;
}

void PfxIndex::clear() {
  free_below(&v4_);
  free_below(&v6_);
  if (any_used_ != 0) pol_free(any_.counts, MEM_UNCOUNTED);
  any_used_ = 0;
  any_ = {};
}

}  // namespace pol
