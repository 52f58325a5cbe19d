// SPDX-License-Identifier: Apache-2.0
#include "lists/list_directory.h"

#include <algorithm>
#include <cstring>

#include "base/pol_memory.h"
#include "lists/named_list.h"
#include "lists/pol_pfx_index.h"

namespace pol {
namespace {

using Item = ListDirectory::Item;
using Table = ListDirectory::Table;

// The flag of a place with a table, else one list has it once.
constexpr uint8_t kTable = 1;
constexpr unsigned kIdBits = 32;
// A place that so many lists share is not looked through: verifying their sequences is no dearer.
constexpr uint32_t kMostAtPlace = 256;

Item* item_at(Table* table, const NamedHead* list) {
  return std::lower_bound(table->items, table->items + table->count, list,
                          [](const Item& item, const NamedHead* key) { return item.list < key; });
}

size_t table_bytes(uint32_t room) { return sizeof(Table) + (room - 1) * sizeof(Item); }

bool table_add(Table** table, const NamedHead* list, Interval lengths) {
  Item* item = item_at(*table, list);
  Table* full = *table;
  if (item != full->items + full->count && item->list == list) {
    ++item->count;
    item->low = std::min(item->low, lengths.low);
    item->high = std::max(item->high, lengths.high);
    return true;
  }
  const auto at = static_cast<size_t>(item - full->items);
  if (full->count == full->room) {
    auto* grown = static_cast<Table*>(pol_realloc(full, table_bytes(full->room * 2)));
    if (grown == nullptr) return false;
    grown->room *= 2;
    *table = full = grown;
  }
  memmove(full->items + at + 1, full->items + at, (full->count - at) * sizeof(Item));
  full->items[at] = {list, 1, lengths.low, lengths.high};
  ++full->count;
  return true;
}

// True when the table is empty now.
bool table_remove(Table* table, const NamedHead* list) {
  Item* item = item_at(table, list);
  if (item == table->items + table->count || item->list != list || --item->count > 0) return false;
  memmove(item, item + 1, static_cast<size_t>(table->items + --table->count - item) * sizeof(Item));
  return table->count == 0;
}

// Makes a place that one list has once ready for more.
bool cell_share(TrieCell* cell) {
  if (cell->info.flag == kTable) return true;
  constexpr uint32_t kRoom = 4;
  auto* table = static_cast<Table*>(pol_malloc(table_bytes(kRoom), MEM_UNCOUNTED));
  if (table == nullptr) return false;
  table->count = 1;
  table->room = kRoom;
  table->items[0] = {static_cast<NamedHead*>(cell->value), 1, cell->info.low, cell->info.high};
  cell->value = table;
  cell->info.flag = kTable;
  return true;
}

template <class Bits>
bool enter(Arena* arena, PrefixTrie<Bits>* trie, Bits key, unsigned length, Interval lengths,
           const NamedHead& list) {
  TrieCell* cell = trie->find_or_add(arena, key, length);
  if (cell == nullptr) return false;
  if (cell->value != nullptr) {
    if (!cell_share(cell)) return false;
    auto* table = static_cast<Table*>(cell->value);
    const bool entered = table_add(&table, &list, lengths);
    cell->value = table;
    return entered;
  }
  cell->value = const_cast<NamedHead*>(&list);
  cell->info.low = lengths.low;
  cell->info.high = lengths.high;
  return true;
}

template <class Bits>
void leave(Arena* arena, PrefixTrie<Bits>* trie, Bits key, unsigned length, const NamedHead& list) {
  TriePath path;
  const TrieCell* cell = trie->find(key, length, &path);
  if (cell == nullptr) return;
  if (cell->info.flag == kTable) {
    if (!table_remove(static_cast<Table*>(cell->value), &list)) return;
    pol_free(cell->value, MEM_UNCOUNTED);
  } else if (cell->value != &list) {
    return;
  }
  trie->remove(arena, path);
}

template <class Bits>
void change(ListDirectory* directory, PrefixTrie<Bits>* trie, Bits key, unsigned length,
            Interval lengths, const NamedHead& list, bool enters) {
  if (!enters) {
    leave(&directory->arena, trie, key, length, list);
  } else if (!enter(&directory->arena, trie, key, length, lengths, list)) {
    directory->broken = true;
  }
}

bool answers(const ListDirectory& directory, const NamedHead& list) {
  return !directory.broken && directory_has(directory, list);
}

uint64_t id_key(uint64_t id) { return id << (64 - kIdBits); }

void change_id(ListDirectory* directory, const NamedHead& list, uint64_t id, unsigned length,
               bool enters) {
  const Interval any = {static_cast<uint8_t>(length), 255};
  change(directory, &directory->narrow, id_key(id), length, any, list, enters);
}

void free_table(const TrieCell& cell) {
  if (cell.info.flag == kTable) pol_free(cell.value, MEM_UNCOUNTED);
}

// What a place says beyond what is found already: the new number, or more than `most`.
unsigned gather_table(const Table& table, uint8_t length, const NamedHead** found, unsigned count,
                      unsigned most) {
  if (table.count > kMostAtPlace) return most + 1;
  for (uint32_t i = 0; i < table.count; ++i) {
    const Item& item = table.items[i];
    if (length < item.low || item.high < length) continue;
    if (count == most) return most + 1;
    found[count++] = item.list;
  }
  return count;
}

template <class Count, class Bits>
[[gnu::always_inline]] inline unsigned gather(const TrieCell* root, Bits key, uint8_t length,
                                              const NamedHead** found, unsigned most) {
  unsigned count = 0;
  trie_visit<Count>(root, key, length, [&](const TrieCell& cell) {
    if (cell.info.flag == kTable) {
      count = gather_table(*static_cast<const Table*>(cell.value), length, found, count, most);
      return count > most;
    }
    if (length < cell.info.low || cell.info.high < length) return false;
    if (count == most) {
      ++count;
      return true;
    }
    found[count++] = static_cast<const NamedHead*>(cell.value);
    return false;
  });
  return count;
}

template <class Bits>
[[gnu::target("popcnt")]] unsigned gather_by_instruction(const TrieCell* root, Bits key,
                                                         uint8_t length, const NamedHead** found,
                                                         unsigned most) {
  return gather<CountByInstruction>(root, key, length, found, most);
}

template <class Bits>
[[gnu::always_inline]] inline unsigned ask(const PrefixTrie<Bits>& trie, Bits key, uint8_t length,
                                           const NamedHead** found, unsigned most) {
  if (g_cpu_counts) return gather_by_instruction(trie.root(), key, length, found, most);
  return gather<CountByTricks>(trie.root(), key, length, found, most);
}

}  // namespace

bool directory_has(const ListDirectory& directory, const NamedHead& list) {
  return list.enrolled != 0 && list.enrolled == directory.generation;
}

void directory_enrol(ListDirectory* directory, NamedHead* list) {
  if (directory->generation == 0) directory->generation = 1;
  list->enrolled = directory->generation;
}

void directory_clear(ListDirectory* directory) {
  directory->narrow.each(free_table);
  directory->wide.each(free_table);
  directory->narrow.forget();
  directory->wide.forget();
  directory->arena.release();
  directory->broken = false;
  directory->users = 0;  // who relied on it has another generation
  if (++directory->generation == 0) directory->generation = 1;
}

void directory_range(ListDirectory* directory, const NamedHead& list, uint64_t low, uint64_t high,
                     bool enters) {
  if (!answers(*directory, list) || low > high) return;
  unsigned bits = 0;
  while (bits < kIdBits && uint64_t{1} << bits < high - low + 1) ++bits;
  const uint64_t first = low >> bits << bits;
  const uint64_t last = high >> bits << bits;
  change_id(directory, list, first, kIdBits - bits, enters);
  if (first != last) change_id(directory, list, last, kIdBits - bits, enters);
}

void directory_tloc(ListDirectory* directory, const NamedHead& list, const t_tloc_id& tloc,
                    bool enters) {
  if (answers(*directory, list)) change_id(directory, list, tloc_hash(tloc), kIdBits, enters);
}

void directory_color(ListDirectory* directory, const NamedHead& list, uint16_t color, bool enters) {
  if (answers(*directory, list)) change_id(directory, list, color, kIdBits, enters);
}

void directory_prefix(ListDirectory* directory, const NamedHead& list, const t_pfx_entry& element,
                      bool enters) {
  if (!answers(*directory, list)) return;
  const Interval lengths = pfx_lengths_of(element);
  if (lengths.low > lengths.high) return;
  const bool any = pfx_takes_every_family(element);
  const unsigned length = element.len;
  const t_ipaddr address = pfx_address(element);
  if (any || address.family == KEL_AF_INET) {
    const uint64_t key = any ? 0 : pfx_bits_v4(address);
    change(directory, &directory->narrow, key, std::min(length, 32u), lengths, list, enters);
  }
  if (any || address.family == KEL_AF_INET6) {
    const Bits128 key = any ? 0 : pfx_bits_v6(address);
    change(directory, &directory->wide, key, std::min(length, 128u), lengths, list, enters);
  }
}

unsigned directory_ask(const ListDirectory& directory, uint32_t id, const NamedHead** found,
                       unsigned most) {
  return ask(directory.narrow, id_key(id), uint8_t{kIdBits}, found, most);
}

unsigned directory_ask(const ListDirectory& directory, const t_ipprefix& prefix,
                       const NamedHead** found, unsigned most) {
  if (prefix.addr.family == KEL_AF_INET) {
    return ask(directory.narrow, pfx_bits_v4(prefix.addr), prefix.len, found, most);
  }
  return ask(directory.wide, pfx_bits_v6(prefix.addr), prefix.len, found, most);
}

uint32_t tloc_hash(const t_tloc_id& tloc) {
  uint64_t high = 0;
  uint64_t low = tloc.addr.v4;
  if (tloc.family != KEL_AF_INET) {
    memcpy(&high, tloc.addr.v6, sizeof high);
    memcpy(&low, tloc.addr.v6 + sizeof high, sizeof low);
  }
  constexpr uint64_t kOdd = 0x9e3779b97f4a7c15;
  uint64_t mixed = (low + tloc.family) * kOdd;
  mixed = ((mixed ^ mixed >> 29) + high) * kOdd;
  mixed = ((mixed ^ mixed >> 32) + (uint64_t{tloc.color} << 8 | tloc.encap)) * kOdd;
  return static_cast<uint32_t>(mixed >> 32);
}

}  // namespace pol
