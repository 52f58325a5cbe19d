// SPDX-License-Identifier: Apache-2.0
#include "lists/pol_pfx_index.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_memory.h"
#include "kel/ipaddr.h"

namespace pol {
namespace {

using Counts = PfxIndex::Counts;
using SharedPlace = PfxIndex::SharedPlace;
using Other = PfxIndex::Other;

// The flag of a place at which elements are counted, else one stands alone.
constexpr uint8_t kShared = 1;

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

inline bool cell_takes(const TrieCell& cell, uint8_t length) {
  if (cell.info.flag == kShared) {
    return static_cast<const SharedPlace*>(cell.value)->counts.holding[length] != 0;
  }
  return cell.info.low <= length && length <= cell.info.high;
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
bool place_share(TrieCell* cell) {
  if (cell->info.flag == kShared) return true;
  auto* place = alloc<SharedPlace>(MEM_UNCOUNTED);
  if (place == nullptr) return false;
  place->first = static_cast<t_pfx_entry*>(cell->value);
  count_element(&place->counts, {cell->info.low, cell->info.high}, 1);
  cell->value = place;
  cell->info.flag = kShared;
  return true;
}

bool is_indexed(uint32_t family) { return family == KEL_AF_INET || family == KEL_AF_INET6; }

void free_shared(const TrieCell& cell) {
  if (cell.info.flag == kShared) pol_free(cell.value, MEM_UNCOUNTED);
}

template <class Count>
[[gnu::always_inline]] inline bool walk_family(const TrieCell* v4, const TrieCell* v6,
                                               const t_ipprefix& prefix) {
  auto takes = [length = prefix.len](const TrieCell& cell) { return cell_takes(cell, length); };
  if (prefix.addr.family == KEL_AF_INET) {
    return trie_visit<Count>(v4, pfx_bits_v4(prefix.addr), prefix.len, takes);
  }
  if (prefix.addr.family == KEL_AF_INET6) {
    return trie_visit<Count>(v6, pfx_bits_v6(prefix.addr), prefix.len, takes);
  }
  return false;
}

[[gnu::target("popcnt")]] bool walk_by_instruction(const TrieCell* v4, const TrieCell* v6,
                                                   const t_ipprefix& prefix) {
  return walk_family<CountByInstruction>(v4, v6, prefix);
}

}  // namespace

Interval pfx_lengths_of(const t_pfx_entry& element) {
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

bool pfx_takes_every_family(const t_pfx_entry& element) {
  static constexpr uint8_t kZero[16] = {};
  if (element.len != 0) return false;
  if (element.op < POL_PFX_RANGE || element.op > POL_PFX_GT) return false;
  if (element.op == POL_PFX_EQ || element.op == POL_PFX_NE) return false;
  if (element.addr.family == KEL_AF_INET) return element.addr.addr.v4 == 0;
  return memcmp(element.addr.addr.v6, kZero, sizeof kZero) == 0;
}

namespace {

template <class Bits>
struct Keys {
  Bits keys[PfxIndex::kFetched];
  uint8_t lengths[PfxIndex::kFetched];
  unsigned count = 0;

  void add(Bits key, uint8_t length) {
    keys[count] = key;
    lengths[count++] = length;
  }
};

[[gnu::target("popcnt")]] void fetch_by_instruction(const TrieCell* v4, const TrieCell* v6,
                                                    Keys<uint64_t>* narrow, Keys<Bits128>* wide) {
  trie_fetch<CountByInstruction>(v4, narrow->keys, narrow->lengths, narrow->count);
  trie_fetch<CountByInstruction>(v6, wide->keys, wide->lengths, wide->count);
}

}  // namespace

void pfx_fetch(const TrieCell* v4, const TrieCell* v6, const t_ipprefix* const* prefixes,
               unsigned count) {
  // Without the instruction, counting bits costs what waiting less saves.
  if (!g_cpu_counts) return;
  Keys<uint64_t> narrow;
  Keys<Bits128> wide;
  for (unsigned i = 0; i < count; ++i) {
    const t_ipprefix& prefix = *prefixes[i];
    if (prefix.addr.family == KEL_AF_INET) narrow.add(pfx_bits_v4(prefix.addr), prefix.len);
    if (prefix.addr.family == KEL_AF_INET6) wide.add(pfx_bits_v6(prefix.addr), prefix.len);
  }
  fetch_by_instruction(v4, v6, &narrow, &wide);
}

void PfxIndex::fetch(const t_ipprefix* const* prefixes, unsigned count) const {
  pfx_fetch(v4_.root(), v6_.root(), prefixes, count);
}

// REQUIRES, these three: a family with a trie.
TrieCell* PfxIndex::cell_find(const t_ipaddr& addr, unsigned length) const {
  if (addr.family == KEL_AF_INET) return v4_.find(pfx_bits_v4(addr), std::min(length, 32u));
  return v6_.find(pfx_bits_v6(addr), std::min(length, 128u));
}

TrieCell* PfxIndex::cell_find_or_add(const t_ipaddr& addr, unsigned length) {
  if (addr.family == KEL_AF_INET) {
    return v4_.find_or_add(&arena_, pfx_bits_v4(addr), std::min(length, 32u));
  }
  return v6_.find_or_add(&arena_, pfx_bits_v6(addr), std::min(length, 128u));
}

void PfxIndex::cell_remove(const t_ipaddr& addr, unsigned length) {
  if (addr.family == KEL_AF_INET) {
    v4_.remove(&arena_, pfx_bits_v4(addr), std::min(length, 32u));
  } else {
    v6_.remove(&arena_, pfx_bits_v6(addr), std::min(length, 128u));
  }
  if (v4_.empty() && v6_.empty()) arena_.release();
}

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
  TrieCell* cell = cell_find_or_add(element->addr, element->len);
  if (cell == nullptr) return false;
  if (cell->value != nullptr) {
    if (!place_share(cell) || (!listed && !add_other(element))) return false;
    count_element(&static_cast<SharedPlace*>(cell->value)->counts, lengths, 1);
    return true;
  }
  cell->value = element;
  cell->info.low = lengths.low;
  cell->info.high = lengths.high;
  if (listed) remove_other(element);
  return true;
}

void PfxIndex::leave_trie(const t_pfx_entry* element, Interval lengths, bool stays_listed) {
  TrieCell* cell = cell_find(element->addr, element->len);
  if (cell == nullptr) return;
  if (cell->info.flag == kShared) {
    auto* place = static_cast<SharedPlace*>(cell->value);
    if (place->first == element) {
      place->first = nullptr;
    } else if (!stays_listed) {
      remove_other(element);
    }
    count_element(&place->counts, lengths, -1);
    if (place->counts.total > 0) return;
    pol_free(place, MEM_UNCOUNTED);
  }
  cell_remove(element->addr, element->len);
}

// The element at the prefix's place that `others_` does not list; null when there is none.
t_pfx_entry* PfxIndex::first_at(const t_ipaddr& addr, uint8_t length) const {
  if (!is_indexed(addr.family)) return nullptr;
  const TrieCell* cell = cell_find(addr, length);
  if (cell == nullptr) return nullptr;
  if (cell->info.flag == kShared) return static_cast<const SharedPlace*>(cell->value)->first;
  return static_cast<t_pfx_entry*>(cell->value);
}

t_pfx_entry* PfxIndex::find(const t_ipprefix& prefix) const {
  t_pfx_entry* first = first_at(prefix.addr, prefix.len);
  if (first != nullptr && has_prefix(*first, prefix)) return first;
  if (!has_others_) return nullptr;
  const Other* other = others_.find(&prefix);
  return other != nullptr ? other->element : nullptr;
}

bool PfxIndex::add(t_pfx_entry* element) {
  const Interval lengths = pfx_lengths_of(*element);
  if (pfx_takes_every_family(*element)) return enter_any(element, lengths, false);
  if (!is_indexed(element->addr.family)) return add_other(element);
  return enter_trie(element, lengths, false);
}

void PfxIndex::remove(t_pfx_entry* element) {
  const Interval lengths = pfx_lengths_of(*element);
  if (pfx_takes_every_family(*element)) return leave_any(element, lengths, false);
  if (!is_indexed(element->addr.family)) return remove_other(element);
  leave_trie(element, lengths, false);
}

bool PfxIndex::change(t_pfx_entry* element, const t_pol_pfx_record& how) {
  t_pfx_entry changed = *element;
  changed.op = static_cast<uint8_t>(std::min<uint32_t>(how.op, UINT8_MAX));
  changed.min = how.min;
  changed.max = how.max;
  const Interval old = pfx_lengths_of(*element);
  const Interval lengths = pfx_lengths_of(changed);
  const bool was_any = pfx_takes_every_family(*element);
  const bool trie = is_indexed(element->addr.family);
  if (was_any != pfx_takes_every_family(changed)) {
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
    TrieCell* cell = cell_find(element->addr, element->len);
    if (cell == nullptr) return false;
    if (cell->info.flag == kShared) {
      Counts* counts = &static_cast<SharedPlace*>(cell->value)->counts;
      count(counts, old, -1);
      count(counts, lengths, 1);
    } else {
      cell->info.low = lengths.low;
      cell->info.high = lengths.high;
    }
  }
  *element = changed;
  return true;
}

bool PfxIndex::matches(const t_ipprefix& prefix) const {
  if (any_ != nullptr && any_->holding[prefix.len] != 0) return true;
  if (g_cpu_counts) return walk_by_instruction(v4_.root(), v6_.root(), prefix);
  return walk_family<CountByTricks>(v4_.root(), v6_.root(), prefix);
}

void PfxIndex::clear() {
  v4_.each(free_shared);
  v6_.each(free_shared);
  v4_.forget();
  v6_.forget();
  arena_.release();
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
  const Interval lengths = pfx_lengths_of(element);
  if (prefix.len < lengths.low || prefix.len > lengths.high) return false;
  if (pfx_takes_every_family(element)) return true;
  t_ipprefix own = {};
  own.addr = element.addr;
  own.len = element.len;
  return ipprefix_is_contained(&prefix, &own) != 0;
}

}  // namespace pol
