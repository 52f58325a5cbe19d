// SPDX-License-Identifier: Apache-2.0
#include "lists/pol_pfx_index.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_memory.h"
#include "kel/ipaddr.h"

namespace pol {
namespace {

using Slot = PfxIndex::Slot;
using Node = PfxIndex::Node;
using Counts = PfxIndex::Counts;
using SharedPlace = PfxIndex::SharedPlace;
using Other = PfxIndex::Other;
using Interval = PfxIndex::Interval;

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

// Bit tricks instead of the builtin: the baseline CPU has no such instruction, the builtin is a call.
struct CountByTricks {
  static unsigned of(uint64_t v) {
    v -= (v >> 1) & 0x5555555555555555u;
    v = (v & 0x3333333333333333u) + ((v >> 2) & 0x3333333333333333u);
    v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0fu;
    return static_cast<unsigned>((v * 0x0101010101010101u) >> 56);
  }
};

// For code compiled for CPUs that have it.
struct CountByInstruction {
  static unsigned of(uint64_t v) { return static_cast<unsigned>(__builtin_popcountll(v)); }
};

inline unsigned count_bits(uint64_t v) { return CountByTricks::of(v); }

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

// The lengths that the element takes among prefixes that lie in it.
Interval lengths_of(const t_pfx_entry& element) {
  int own = element.len;
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

bool takes_every_family(const t_pfx_entry& element) {
  static constexpr uint8_t kZero[16] = {};
  if (element.len != 0) return false;
  if (element.op < POL_PFX_RANGE || element.op > POL_PFX_GT) return false;
  if (element.op == POL_PFX_EQ || element.op == POL_PFX_NE) return false;
  if (element.addr.family == KEL_AF_INET) return element.addr.addr.v4 == 0;
  return memcmp(element.addr.addr.v6, kZero, sizeof kZero) == 0;
}

bool has_prefix(const t_pfx_entry& element, const t_ipprefix& prefix) {
  if (element.len != prefix.len) return false;
  if (prefix.addr.family == KEL_AF_INET) return element.addr.addr.v4 == prefix.addr.addr.v4;
  return memcmp(element.addr.addr.v6, prefix.addr.addr.v6, sizeof element.addr.addr.v6) == 0;
}

// Orders prefixes, host bits included. Meeting an element of the same family that is neither IPv4 nor IPv6 is
// a broken invariant; a look-up in the tree meets one whenever there is one.
int other_compare(const void* key, const void* node) {
  const t_ipprefix& a = *static_cast<const t_ipprefix*>(key);
  const t_pfx_entry& b = *static_cast<const Other*>(node)->element;
  if (a.addr.family != b.addr.family) return a.addr.family < b.addr.family ? -1 : 1;
  if (a.addr.family == KEL_AF_INET) {
    if (a.addr.addr.v4 != b.addr.addr.v4) return a.addr.addr.v4 < b.addr.addr.v4 ? -1 : 1;
  } else {
    assert(a.addr.family == KEL_AF_INET6);
    int order = memcmp(a.addr.addr.v6, b.addr.addr.v6, sizeof a.addr.addr.v6);
    if (order != 0) return sign(order);
  }
  return sign(a.len - b.len);
}

inline bool slot_takes(const Slot& slot, uint8_t length) {
  if (slot.shared) return slot.place->counts.holding[length] != 0;
  return slot.low <= length && length <= slot.high;
}

void count(Counts* counts, Interval lengths, int by) {
  for (int length = lengths.low; length <= lengths.high; ++length) {
    counts->holding[length] += static_cast<uint32_t>(by);
  }
}

// One more element, by number and by lengths; by < 0 one fewer.
void count_element(Counts* counts, Interval lengths, int by) {
  counts->total += static_cast<uint32_t>(by);
  count(counts, lengths, by);
}

// Makes a place that holds one element ready for more.
bool slot_share(Slot* slot) {
  if (slot->shared) return true;
  auto* place = alloc<SharedPlace>(MEM_UNCOUNTED);
  if (place == nullptr) return false;
  place->first = slot->element;
  count_element(&place->counts, {slot->low, slot->high}, 1);
  slot->place = place;
  slot->shared = true;
  return true;
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

bool is_indexed(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

// REQUIRES: a family with a trie.
bool find_place(Node* v4, Node* v6, const t_ipaddr& addr, unsigned length, bool make, Path* path) {
  if (addr.family == KEL_AF_INET) {
    return descend(v4, address_bits_v4(addr), std::min(length, 32u), make, path);
  }
  return descend(v6, address_bits_v6(addr), std::min(length, 128u), make, path);
}

bool is_taken(const Path& path) { return (path.node[path.depth]->prefixes & path.place) != 0; }

Slot* slot_at(const Path& path) {
  const Node* node = path.node[path.depth];
  return node->slots + rank(node->prefixes, path.place);
}

template <class Count, class Bits>
[[gnu::always_inline]] inline bool walk(const Node* node, Bits bits, uint8_t length) {
  for (unsigned depth_bits = 0; depth_bits <= length; depth_bits += kStride, bits <<= kStride) {
    const unsigned chunk = next_chunk(bits);
    uint64_t hits = node->prefixes & kPaths[chunk];
    while (hits != 0) {
      const uint64_t bit = hits & (~hits + 1);
      if (slot_takes(node->slots[Count::of(node->prefixes & (bit - 1))], length)) return true;
      hits ^= bit;
    }
    const uint64_t bit = uint64_t{1} << chunk;
    if ((node->below & bit) == 0) return false;
    node = node->children + Count::of(node->below & (bit - 1));
  }
  return false;
}

template <class Count>
[[gnu::always_inline]] inline bool walk_family(const Node* v4, const Node* v6,
                                               const t_ipprefix& prefix) {
  if (prefix.addr.family == KEL_AF_INET) {
    return walk<Count>(v4, address_bits_v4(prefix.addr), prefix.len);
  }
  if (prefix.addr.family == KEL_AF_INET6) {
    return walk<Count>(v6, address_bits_v6(prefix.addr), prefix.len);
  }
  return false;
}

[[gnu::target("popcnt")]] bool walk_by_instruction(const Node* v4, const Node* v6,
                                                   const t_ipprefix& prefix) {
  return walk_family<CountByInstruction>(v4, v6, prefix);
}

const bool kCpuCounts = __builtin_cpu_supports("popcnt") != 0;

// As deep as the trie: at most kMaxDepth.
void free_below(Node* node) {
  for (unsigned i = 0, n = count_bits(node->prefixes); i < n; ++i) {
    if (node->slots[i].shared) pol_free(node->slots[i].place, MEM_UNCOUNTED);
  }
  for (unsigned i = 0, n = count_bits(node->below); i < n; ++i) free_below(&node->children[i]);
  pol_free(node->slots, MEM_UNCOUNTED);
  pol_free(node->children, MEM_UNCOUNTED);
  *node = {};
}

}  // namespace

bool PfxIndex::add_other(t_pfx_entry* element) {
  if (!has_others_) others_.create(other_compare, offsetof(Other, link));
  auto* other = alloc<Other>(MEM_UNCOUNTED);
  if (other == nullptr) return false;
  other->element = element;
  has_others_ = true;
  const t_ipprefix prefix = {element->addr, element->len};
  avl_index where = 0;
  others_.find(&prefix, &where);
  others_.insert(other, where);
  return true;
}

void PfxIndex::remove_other(const t_pfx_entry* element) {
  const t_ipprefix prefix = {element->addr, element->len};
  Other* other = others_.find(&prefix);
  others_.remove(other);
  pol_free(other, MEM_UNCOUNTED);
  has_others_ = others_.first() != nullptr;
}

bool PfxIndex::enter_any(t_pfx_entry* element, Interval lengths, bool listed) {
  if (any_ == nullptr) any_ = alloc<Counts>(MEM_UNCOUNTED);
  if (any_ == nullptr) return false;
  if (listed || add_other(element)) {
    count_element(any_, lengths, 1);
    return true;
  }
  if (any_->total == 0) {
    pol_free(any_, MEM_UNCOUNTED);
    any_ = nullptr;
  }
  return false;
}

void PfxIndex::leave_any(const t_pfx_entry* element, Interval lengths, bool stays_listed) {
  if (!stays_listed) remove_other(element);
  count_element(any_, lengths, -1);
  if (any_->total > 0) return;
  pol_free(any_, MEM_UNCOUNTED);
  any_ = nullptr;
}

bool PfxIndex::enter_trie(t_pfx_entry* element, Interval lengths, bool listed) {
  Path path;
  if (find_place(&v4_, &v6_, element->addr, element->len, true, &path)) {
    if (is_taken(path)) {
      Slot* slot = slot_at(path);
      if (!slot_share(slot) || (!listed && !add_other(element))) return false;
      count_element(&slot->place->counts, lengths, 1);
      return true;
    }
    Node* node = path.node[path.depth];
    if (Slot* slot = array_insert(&node->slots, &node->prefixes, path.place)) {
      slot->element = element;
      slot->low = lengths.low;
      slot->high = lengths.high;
      if (listed) remove_other(element);
      return true;
    }
  }
  prune(path);
  return false;
}

void PfxIndex::leave_trie(const t_pfx_entry* element, Interval lengths, bool stays_listed) {
  Path path;
  if (!find_place(&v4_, &v6_, element->addr, element->len, false, &path)) return;
  Slot* slot = slot_at(path);
  if (slot->shared) {
    SharedPlace* place = slot->place;
    if (place->first == element) {
      place->first = nullptr;
    } else if (!stays_listed) {
      remove_other(element);
    }
    count_element(&place->counts, lengths, -1);
    if (place->counts.total > 0) return;
    pol_free(place, MEM_UNCOUNTED);
  }
  Node* node = path.node[path.depth];
  array_remove(&node->slots, &node->prefixes, path.place);
  prune(path);
}

// The element at the prefix's place that `others_` does not list; null when there is none.
t_pfx_entry* PfxIndex::first_at(const t_ipaddr& addr, uint8_t length) const {
  if (!is_indexed(addr.family)) return nullptr;
  Path path;
  auto* self = const_cast<PfxIndex*>(this);  // nothing is made, so the nodes stay as they are
  if (!find_place(&self->v4_, &self->v6_, addr, length, false, &path) || !is_taken(path)) {
    return nullptr;
  }
  const Slot* slot = slot_at(path);
  return slot->shared ? slot->place->first : slot->element;
}

t_pfx_entry* PfxIndex::find(const t_ipprefix& prefix) const {
  t_pfx_entry* first = first_at(prefix.addr, prefix.len);
  if (first != nullptr && has_prefix(*first, prefix)) return first;
  if (!has_others_) return nullptr;
  const Other* other = others_.find(&prefix);
  return other != nullptr ? other->element : nullptr;
}

bool PfxIndex::add(t_pfx_entry* element) {
  const Interval lengths = lengths_of(*element);
  if (takes_every_family(*element)) return enter_any(element, lengths, false);
  if (!is_indexed(element->addr.family)) return add_other(element);
  return enter_trie(element, lengths, false);
}

void PfxIndex::remove(t_pfx_entry* element) {
  const Interval lengths = lengths_of(*element);
  if (takes_every_family(*element)) return leave_any(element, lengths, false);
  if (!is_indexed(element->addr.family)) return remove_other(element);
  leave_trie(element, lengths, false);
}

bool PfxIndex::change(t_pfx_entry* element, const t_pol_pfx_record& how) {
  t_pfx_entry changed = *element;
  changed.op = static_cast<uint8_t>(std::min<uint32_t>(how.op, UINT8_MAX));
  changed.min = how.min;
  changed.max = how.max;
  const Interval old = lengths_of(*element);
  const Interval lengths = lengths_of(changed);
  const bool was_any = takes_every_family(*element);
  const bool trie = is_indexed(element->addr.family);
  if (was_any != takes_every_family(changed)) {
    // The new place is taken before the old one is given up, so that running out of memory changes nothing.
    if (was_any) {
      if (trie && !enter_trie(element, lengths, true)) return false;
      leave_any(element, old, true);
    } else {
      const bool listed = first_at(element->addr, element->len) != element;
      if (!enter_any(element, lengths, listed)) return false;
      if (trie) leave_trie(element, old, true);
    }
  } else if (was_any) {
    count(any_, old, -1);
    count(any_, lengths, 1);
  } else if (trie) {
    Path path;
    if (!find_place(&v4_, &v6_, element->addr, element->len, false, &path)) return false;
    Slot* slot = slot_at(path);
    if (slot->shared) {
      count(&slot->place->counts, old, -1);
      count(&slot->place->counts, lengths, 1);
    } else {
      slot->low = lengths.low;
      slot->high = lengths.high;
    }
  }
  *element = changed;
  return true;
}

bool PfxIndex::matches(const t_ipprefix& prefix) const {
  if (any_ != nullptr && any_->holding[prefix.len] != 0) return true;
  if (kCpuCounts) return walk_by_instruction(&v4_, &v6_, prefix);
  return walk_family<CountByTricks>(&v4_, &v6_, prefix);
}

void PfxIndex::clear() {
  free_below(&v4_);
  free_below(&v6_);
  pol_free(any_, MEM_UNCOUNTED);
  any_ = nullptr;
  void* cookie = nullptr;
  while (has_others_) {
    Other* other = others_.drain(&cookie);
    has_others_ = other != nullptr;
    pol_free(other, MEM_UNCOUNTED);
  }
}

bool pfx_element_takes(const t_pfx_entry& element, const t_ipprefix& prefix) {
  const Interval lengths = lengths_of(element);
  if (prefix.len < lengths.low || prefix.len > lengths.high) return false;
  if (takes_every_family(element)) return true;
  t_ipprefix own = {};
  own.addr = element.addr;
  own.len = element.len;
  return ipprefix_is_contained(&prefix, &own) != 0;
}

}  // namespace pol
