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

constexpr uint32_t kOtherOp = 127;

// The flag of a place at which elements are counted, else one stands alone.
constexpr uint8_t kShared = 1;

const uint8_t* v6_of(const t_pfx_entry& element) {
  return reinterpret_cast<const t_pfx_entry_wide&>(element).v6;
}

uint32_t family_of(const t_pfx_entry& element) {
  return element.wide != 0 ? element.family : uint32_t{KEL_AF_INET};
}

// REQUIRES: of one family.
bool has_prefix(const t_pfx_entry& element, const t_ipprefix& prefix) {
  if (element.len != prefix.len) return false;
  if (element.wide == 0) return element.v4 == prefix.addr.addr.v4;
  return memcmp(v6_of(element), prefix.addr.addr.v6, sizeof prefix.addr.addr.v6) == 0;
}

// Orders prefixes, host bits included. Meeting an element of the same family that is neither IPv4
// nor IPv6 is a broken invariant; a look-up in the tree meets one whenever there is one.
int other_compare(const void* key, const void* node) {
  const t_ipprefix& a = *static_cast<const t_ipprefix*>(key);
  const t_pfx_entry& b = *static_cast<const Other*>(node)->element;
  const uint32_t family = family_of(b);
  if (a.addr.family != family) return a.addr.family < family ? -1 : 1;
  if (b.wide == 0) {
    if (a.addr.addr.v4 != b.v4) return a.addr.addr.v4 < b.v4 ? -1 : 1;
  } else {
    assert(a.addr.family == KEL_AF_INET6);
    int order = memcmp(a.addr.addr.v6, v6_of(b), sizeof a.addr.addr.v6);
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

void set_bounds(t_pfx_entry* element, const t_pol_pfx_record& how) {
  element->op = static_cast<uint8_t>(std::min(how.op, kOtherOp)) & kOtherOp;
  element->min = how.min;
  element->max = how.max;
}

// The element at a place that `others_` does not list; null when there is none.
t_pfx_entry* first_of(const TrieCell& cell) {
  if (cell.info.flag == kShared) return static_cast<const SharedPlace*>(cell.value)->first;
  return static_cast<t_pfx_entry*>(cell.value);
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

}  // namespace

t_ipaddr pfx_address(const t_pfx_entry& element) {
  t_ipaddr address = {};
  address.family = family_of(element);
  if (element.wide == 0) {
    address.addr.v4 = element.v4;
  } else {
    memcpy(address.addr.v6, v6_of(element), sizeof address.addr.v6);
  }
  return address;
}

void pfx_entry_fill(t_pfx_entry* element, const t_pol_pfx_record& record) {
  const t_ipaddr& address = record.prefix.addr;
  element->len = record.prefix.len;
  set_bounds(element, record);
  element->wide = pfx_is_wide(record.prefix) ? 1 : 0;
  if (element->wide == 0) {
    element->v4 = address.addr.v4;
  } else {
    element->family = address.family;
    memcpy(reinterpret_cast<t_pfx_entry_wide*>(element)->v6, address.addr.v6,
           sizeof address.addr.v6);
  }
}

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
  if (element.wide == 0) return element.v4 == 0;
  return memcmp(v6_of(element), kZero, sizeof kZero) == 0;
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

}  // namespace

void pfx_fetch(const Arena& arena, const TrieCell* v4, const TrieCell* v6,
               const t_ipprefix* const* prefixes, unsigned count) {
  // By measuring: below some 250,000 elements a descent waits for less than looking ahead takes,
  // and so it does anywhere without the instruction that counts bits.
  constexpr size_t kFarBytes = 8 << 20;
  if (!g_cpu_counts || arena.bytes() < kFarBytes) return;
  Keys<uint64_t> narrow;
  Keys<Bits128> wide;
  for (unsigned i = 0; i < count; ++i) {
    const t_ipprefix& prefix = *prefixes[i];
    if (prefix.addr.family == KEL_AF_INET) narrow.add(pfx_bits_v4(prefix.addr), prefix.len);
    if (prefix.addr.family == KEL_AF_INET6) wide.add(pfx_bits_v6(prefix.addr), prefix.len);
  }
  trie_fetch<CountByInstruction>(v4, narrow.keys, narrow.lengths, narrow.count);
  trie_fetch<CountByInstruction>(v6, wide.keys, wide.lengths, wide.count);
}

void PfxIndex::fetch(const t_ipprefix* const* prefixes, unsigned count) const {
  pfx_fetch(arena_, v4_.root(), v6_.root(), prefixes, count);
}

// REQUIRES, these three: a family with a trie.
TrieCell* PfxIndex::cell_find(const t_ipaddr& addr, unsigned length, TriePath* path) const {
  if (addr.family == KEL_AF_INET) return v4_.find(pfx_bits_v4(addr), std::min(length, 32u), path);
  return v6_.find(pfx_bits_v6(addr), std::min(length, 128u), path);
}

TrieCell* PfxIndex::cell_find_or_add(const t_ipaddr& addr, unsigned length) {
  if (addr.family == KEL_AF_INET) {
    return v4_.find_or_add(&arena_, pfx_bits_v4(addr), std::min(length, 32u));
  }
  return v6_.find_or_add(&arena_, pfx_bits_v6(addr), std::min(length, 128u));
}

void PfxIndex::cell_remove(uint32_t family, const TriePath& path) {
  if (family == KEL_AF_INET) {
    v4_.remove(&arena_, path);
  } else {
    v6_.remove(&arena_, path);
  }
  if (v4_.empty() && v6_.empty()) arena_.release();
}

bool PfxIndex::add_other(t_pfx_entry* element) {
  if (!has_others_) others_.create(other_compare, offsetof(Other, link));
  auto* other = alloc<Other>(MEM_UNCOUNTED);
  if (other == nullptr) return false;
  other->element = element;
  has_others_ = true;
  const t_ipprefix prefix = {pfx_address(*element), element->len};
  avl_index where = 0;
  others_.find(&prefix, &where);
  others_.insert(other, where);
  return true;
}

void PfxIndex::remove_other(const t_pfx_entry* element) {
  const t_ipprefix prefix = {pfx_address(*element), element->len};
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
  TrieCell* cell = cell_find_or_add(pfx_address(*element), element->len);
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
  TriePath path;
  const TrieCell* cell = cell_find(pfx_address(*element), element->len, &path);
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
  cell_remove(family_of(*element), path);
}

// The element with that prefix, at or beside its place.
t_pfx_entry* PfxIndex::find_at(const TrieCell& cell, const t_ipprefix& prefix) const {
  t_pfx_entry* first = first_of(cell);
  if (first != nullptr && has_prefix(*first, prefix)) return first;
  return find_other(prefix);
}

t_pfx_entry* PfxIndex::find_other(const t_ipprefix& prefix) const {
  if (!has_others_) return nullptr;
  const Other* other = others_.find(&prefix);
  return other != nullptr ? other->element : nullptr;
}

t_pfx_entry* PfxIndex::find(const t_ipprefix& prefix) const {
  const TrieCell* cell =
      is_indexed(prefix.addr.family) ? cell_find(prefix.addr, prefix.len) : nullptr;
  return cell != nullptr ? find_at(*cell, prefix) : find_other(prefix);
}

bool PfxIndex::find_or_keep(const t_ipprefix& prefix, Kept* kept) {
  *kept = {};
  // Elements 0/0 may take every family.
  if (!is_indexed(prefix.addr.family) || prefix.len == 0) {
    kept->element = find(prefix);
    return true;
  }
  TrieCell* cell = cell_find_or_add(prefix.addr, prefix.len);
  if (cell == nullptr) return false;
  if (cell->value == nullptr) {
    kept->place = cell;
  } else {
    kept->element = find_at(*cell, prefix);
  }
  return true;
}

void PfxIndex::settle(TrieCell* place, t_pfx_entry* element) {
  const Interval lengths = pfx_lengths_of(*element);
  place->value = element;
  place->info.low = lengths.low;
  place->info.high = lengths.high;
}

void PfxIndex::give_up(const t_ipprefix& prefix) {
  TriePath path;
  if (cell_find(prefix.addr, prefix.len, &path) != nullptr) cell_remove(prefix.addr.family, path);
}

t_pfx_entry* PfxIndex::take(const t_ipprefix& prefix) {
  if (is_indexed(prefix.addr.family) && prefix.len != 0) {
    TriePath path;
    const TrieCell* cell = cell_find(prefix.addr, prefix.len, &path);
    if (cell == nullptr) return nullptr;
    if (cell->info.flag != kShared) {
      auto* element = static_cast<t_pfx_entry*>(cell->value);
      if (!has_prefix(*element, prefix)) return nullptr;
      cell_remove(prefix.addr.family, path);
      return element;
    }
  }
  t_pfx_entry* element = find(prefix);
  if (element != nullptr) remove(element);
  return element;
}

bool PfxIndex::add(t_pfx_entry* element) {
  const Interval lengths = pfx_lengths_of(*element);
  if (pfx_takes_every_family(*element)) return enter_any(element, lengths, false);
  if (!is_indexed(family_of(*element))) return add_other(element);
  return enter_trie(element, lengths, false);
}

void PfxIndex::remove(t_pfx_entry* element) {
  const Interval lengths = pfx_lengths_of(*element);
  if (pfx_takes_every_family(*element)) return leave_any(element, lengths, false);
  if (!is_indexed(family_of(*element))) return remove_other(element);
  leave_trie(element, lengths, false);
}

bool PfxIndex::change(t_pfx_entry* element, const t_pol_pfx_record& how) {
  const Interval old = pfx_lengths_of(*element);
  const bool was_any = pfx_takes_every_family(*element);
  const t_pol_pfx_record before = {element->op, {}, element->min, element->max};
  set_bounds(element, how);
  const Interval lengths = pfx_lengths_of(*element);
  if (was_any != pfx_takes_every_family(*element)) {
    if (move(element, was_any, old, lengths)) return true;
    set_bounds(element, before);
    return false;
  }
  if (was_any) {
    count(any_, old, -1);
    count(any_, lengths, 1);
  } else if (is_indexed(family_of(*element))) {
    TrieCell* cell = cell_find(pfx_address(*element), element->len);
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
  return true;
}

// From the elements that take every family to the tries, or back. The new place is taken before the
// old one is given up, so that running out of memory changes nothing.
bool PfxIndex::move(t_pfx_entry* element, bool was_any, Interval old, Interval lengths) {
  const t_ipaddr address = pfx_address(*element);
  const bool trie = is_indexed(address.family);
  if (was_any) {
    if (trie && !enter_trie(element, lengths, true)) return false;
    leave_any(element, old, true);
    return true;
  }
  const TrieCell* cell = trie ? cell_find(address, element->len) : nullptr;
  const bool listed = cell == nullptr || first_of(*cell) != element;
  if (!enter_any(element, lengths, listed)) return false;
  if (trie) leave_trie(element, old, true);
  return true;
}

bool PfxIndex::matches(const t_ipprefix& prefix) const {
  if (any_ != nullptr && any_->holding[prefix.len] != 0) return true;
  if (g_cpu_counts) return walk_family<CountByInstruction>(v4_.root(), v6_.root(), prefix);
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
  own.addr = pfx_address(element);
  own.len = element.len;
  return ipprefix_is_contained(&prefix, &own) != 0;
}

}  // namespace pol
