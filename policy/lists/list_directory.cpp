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
  if (cell->info.flag == kDirectoryTable) return true;
  constexpr uint32_t kRoom = 4;
  auto* table = static_cast<Table*>(pol_malloc(table_bytes(kRoom), MEM_UNCOUNTED));
  if (table == nullptr) return false;
  table->count = 1;
  table->room = kRoom;
  table->items[0] = {static_cast<NamedHead*>(cell->value), 1, cell->info.low, cell->info.high};
  cell->value = table;
  cell->info.flag = kDirectoryTable;
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
  if (cell->info.flag == kDirectoryTable) {
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
    --directory->load;
    return;
  }
  ++directory->load;
  if (!enter(&directory->arena, trie, key, length, lengths, list)) directory->broken = true;
}

bool answers(const NamedHead& list) { return list.directory != nullptr && !list.directory->broken; }

void change_id(const NamedHead& list, uint64_t id, unsigned length, bool enters) {
  const Interval any = {static_cast<uint8_t>(length), 255};
  change(list.directory, &list.directory->narrow, directory_id_key(id), length, any, list, enters);
}

void free_table(const TrieCell& cell) {
  if (cell.info.flag == kDirectoryTable) pol_free(cell.value, MEM_UNCOUNTED);
}

}  // namespace

ListDirectory* directory_make() { return alloc<ListDirectory>(MEM_UNCOUNTED); }

void directory_enrol(ListDirectory* directory, NamedHead* list) {
  directory->lists.push_back(list);
  ++directory->load;
  list->directory = directory;
}

void directory_forget(NamedHead* list) {
  if (list->directory == nullptr) return;
  list->directory->lists.remove(list);
  --list->directory->load;
  list->directory = nullptr;
}

void directory_use(ListDirectory* directory, DirectoryUser* user) {
  directory->users.push_back(user);
  ++directory->load;
  user->directory = directory;
}

void directory_let_go(DirectoryUser* user) {
  ListDirectory* directory = user->directory;
  if (directory == nullptr) return;
  directory->users.remove(user);
  --directory->load;
  user->directory = nullptr;
  if (directory->users.empty()) directory_dissolve(directory);
}

void directory_replace(ListDirectory* directory, ListDirectory* by) {
  while (DirectoryUser* user = directory->users.pop_front()) {
    user->directory = nullptr;
    if (by != nullptr) directory_use(by, user);
  }
  while (NamedHead* list = directory->lists.front()) directory_forget(list);
  directory->narrow.each(free_table);
  directory->wide.each(free_table);
  directory->arena.release();
  pol_free(directory, MEM_UNCOUNTED);
}

void directory_dissolve(ListDirectory* directory) { directory_replace(directory, nullptr); }

void directory_range(const NamedHead& list, uint64_t low, uint64_t high, bool enters) {
  if (!answers(list) || low > high) return;
  unsigned bits = 0;
  while (bits < kDirectoryIdBits && uint64_t{1} << bits < high - low + 1) ++bits;
  const uint64_t first = low >> bits << bits;
  const uint64_t last = high >> bits << bits;
  change_id(list, first, kDirectoryIdBits - bits, enters);
  if (first != last) change_id(list, last, kDirectoryIdBits - bits, enters);
}

void directory_tloc(const NamedHead& list, const t_tloc_id& tloc, bool enters) {
  if (answers(list)) change_id(list, tloc_hash(tloc), kDirectoryIdBits, enters);
}

void directory_color(const NamedHead& list, uint16_t color, bool enters) {
  if (answers(list)) change_id(list, color, kDirectoryIdBits, enters);
}

void directory_prefix(const NamedHead& list, const t_pfx_entry& element, bool enters) {
  if (!answers(list)) return;
  ListDirectory* directory = list.directory;
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

unsigned directory_gather_table(const ListDirectory::Table& table, uint8_t length,
                                const NamedHead** found, unsigned count, unsigned most) {
  if (table.count > kDirectoryMostAtPlace) return most + 1;
  for (uint32_t i = 0; i < table.count; ++i) {
    const Item& item = table.items[i];
    if (length < item.low || item.high < length) continue;
    if (count == most) return most + 1;
    found[count++] = item.list;
  }
  return count;
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
