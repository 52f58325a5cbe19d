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

constexpr uint32_t kFirstRoom = 4;

uint32_t home_of(const Table& table, const NamedHead* list) {
  constexpr uint64_t kOdd = 0x9e3779b97f4a7c15;
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(list) * kOdd >> 32) & (table.room - 1);
}

// The list's item, or the free one where it would stand.
Item* item_at(Table* table, const NamedHead* list) {
  uint32_t at = home_of(*table, list);
  while (table->items[at].list != nullptr && table->items[at].list != list) {
    at = (at + 1) & (table->room - 1);
  }
  return &table->items[at];
}

Table* table_make(uint32_t room) {
  const size_t bytes = sizeof(Table) + (room - 1) * sizeof(Item);
  auto* table = static_cast<Table*>(pol_calloc(1, bytes, MEM_UNCOUNTED));
  if (table != nullptr) table->room = room;
  return table;
}

// False when memory runs out; then nothing changed.
bool table_resize(Table** table, uint32_t room) {
  Table* made = table_make(room);
  if (made == nullptr) return false;
  for (uint32_t i = 0; i < (*table)->room; ++i) {
    const Item& item = (*table)->items[i];
    if (item.list != nullptr) *item_at(made, item.list) = item;
  }
  made->count = (*table)->count;
  pol_free(*table, MEM_UNCOUNTED);
  *table = made;
  return true;
}

bool table_add(Table** table, const NamedHead* list, Interval lengths) {
  Item* item = item_at(*table, list);
  if (item->list != nullptr) {
    ++item->count;
    item->low = std::min(item->low, lengths.low);
    item->high = std::max(item->high, lengths.high);
    return true;
  }
  if ((*table)->count + 1 > (*table)->room / 4 * 3) {
    if (!table_resize(table, (*table)->room * 2)) return false;
    item = item_at(*table, list);
  }
  *item = {list, 1, lengths.low, lengths.high};
  ++(*table)->count;
  return true;
}

// True when the table is empty now.
bool table_remove(Table** table, const NamedHead* list) {
  Table* from = *table;
  Item* item = item_at(from, list);
  if (item->list == nullptr || --item->count > 0) return false;
  // What a search would no longer come to behind the hole moves into it.
  const uint32_t mask = from->room - 1;
  auto hole = static_cast<uint32_t>(item - from->items);
  for (uint32_t at = (hole + 1) & mask; from->items[at].list != nullptr; at = (at + 1) & mask) {
    const uint32_t home = home_of(*from, from->items[at].list);
    if (((at - home) & mask) < ((at - hole) & mask)) continue;
    from->items[hole] = from->items[at];
    hole = at;
  }
  from->items[hole] = {};
  --from->count;
  // As it is looked through whole. One too large for that stays so where there is no memory.
  if (from->room > kFirstRoom && from->count < from->room / 8) {
    (void)table_resize(table, from->room / 2);
  }
  return (*table)->count == 0;
}

// Makes a place that one list has once ready for more.
bool cell_share(TrieCell* cell) {
  if (cell->info.flag == kDirectoryTable) return true;
  Table* table = table_make(kFirstRoom);
  if (table == nullptr) return false;
  auto* list = static_cast<NamedHead*>(cell->value);
  *item_at(table, list) = {list, 1, cell->info.low, cell->info.high};
  table->count = 1;
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
  TrieCell* cell = trie->find(key, length, &path);
  if (cell == nullptr) return;
  if (cell->info.flag == kDirectoryTable) {
    auto* table = static_cast<Table*>(cell->value);
    const bool empty = table_remove(&table, &list);
    cell->value = table;
    if (!empty) return;
    pol_free(table, MEM_UNCOUNTED);
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
  if (table.count > kDirectoryMostAtPlace || table.room > 8 * kDirectoryMostAtPlace)
    return most + 1;
  for (uint32_t i = 0; i < table.room; ++i) {
    const Item& item = table.items[i];
    if (item.list == nullptr || length < item.low || item.high < length) continue;
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
