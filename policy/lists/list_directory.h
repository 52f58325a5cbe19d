// SPDX-License-Identifier: Apache-2.0
//
// list_directory.h - which lists of one family may hold a value, by one look-up, however many lists
// there are.
//
// Policies of many sequences have the lists that they name enrolled (core/pol_policy_index.h); from
// then on a list's elements are entered here as they come and leave as they go, each on one path of
// a trie. A list is in one directory at most, so its elements are entered once, however many
// policies name it; policies that share a list share the directory, and others do not pay for its
// size. The directory rules lists out and nothing else: it may name a list that does not hold the
// value, never miss one that does. So a range of ids is entered as the one or two blocks of a power
// of two that cover it, and a TLOC by 32 bits of hash.
//
// Where memory for an element cannot be had the directory is `broken` for good: it answers for no
// list. It goes with the last index that relies on it. All memory is uncounted.
//
// Invariants
//   1. A list in `lists`, and no other, has this as its `directory`.
//   2. A user in `users`, and no other, has this as its `directory`.
#pragma once

#include <cstdint>

#include "base/arena.h"
#include "base/prefix_trie.h"
#include "base/tail_queue.h"
#include "lists/named_list.h"
#include "policy/pol_types.h"

struct t_pfx_entry;

namespace pol {

// What an index embeds for a directory that it relies on.
struct DirectoryUser {
  TailLink<DirectoryUser> link;
  ListDirectory* directory;  // null: none, or it was dissolved
};

struct ListDirectory {
  PrefixTrie<uint64_t> narrow;  // ids, hashes, IPv4 prefixes: 32 bits
  PrefixTrie<Bits128> wide;     // IPv6 prefixes
  bool broken;
  Arena arena;
  TailQueue<NamedHead, &NamedHead::enrolled> lists;
  TailQueue<DirectoryUser, &DirectoryUser::link> users;
  uint64_t load;  // what joining it to another moves: elements, lists and users

  // A list that shares its place with others, or has it several times.
  struct Item {
    const NamedHead* list;
    uint32_t count;
    uint8_t low;  // what all its elements at this place take lies within
    uint8_t high;
  };
  // Found by hash, so that no number of lists at one place makes the next one dear.
  struct Table {
    uint32_t count;
    uint32_t room;  // a power of two, more than `count`
    Item items[1];  // `room`, those without a list free
  };
};

// Null when memory runs out. The caller's, until somebody uses it.
[[nodiscard]] ListDirectory* directory_make();
// REQUIRES: the list, or the user, is in none. The list's elements are the caller's to enter.
void directory_enrol(ListDirectory* directory, NamedHead* list);
void directory_use(ListDirectory* directory, DirectoryUser* user);
// Frees what nobody uses any more. Does nothing for a user of none.
void directory_let_go(DirectoryUser* user);
// Moves the users, frees the directory and leaves its lists in none.
void directory_replace(ListDirectory* directory, ListDirectory* by);
// The same without another: whoever relied on it relies on none.
void directory_dissolve(ListDirectory* directory);

// What the families call as elements come and go; nothing for a list that is not enrolled. `enters`
// is false for an element that leaves.
void directory_range(const NamedHead& list, uint64_t low, uint64_t high, bool enters);
void directory_tloc(const NamedHead& list, const t_tloc_id& tloc, bool enters);
void directory_color(const NamedHead& list, uint16_t color, bool enters);
void directory_prefix(const NamedHead& list, const t_pfx_entry& element, bool enters);

// A place that so many lists share is not looked through: verifying their sequences is no dearer.
constexpr uint32_t kDirectoryMostAtPlace = 256;
// The flag of a place with a table, else one list has it once.
constexpr uint8_t kDirectoryTable = 1;

// Ids and hashes as keys of the narrow trie.
constexpr uint8_t kDirectoryIdBits = 32;
inline uint64_t directory_id_key(uint64_t id) { return id << (64 - kDirectoryIdBits); }

// What of a table holds prefixes of a length, into `found`, which `count` has been found in
// already: the new number, or more than `most`.
unsigned directory_gather_table(const ListDirectory::Table& table, uint8_t length,
                                const NamedHead** found, unsigned count, unsigned most);

// The lists that may hold a value: at most `most` into `found`. Returns their number, or more than
// `most` when there are more, or too many to look through.
template <class Count, class Bits>
[[gnu::always_inline]] inline unsigned directory_ask(const PrefixTrie<Bits>& trie, Bits key,
                                                     uint8_t length, const NamedHead** found,
                                                     unsigned most) {
  unsigned count = 0;
  trie_visit<Count>(trie.root(), key, length, [&](const TrieCell& cell) {
    if (cell.info.flag == kDirectoryTable) [[unlikely]] {
      const auto& table = *static_cast<const ListDirectory::Table*>(cell.value);
      count = directory_gather_table(table, length, found, count, most);
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

uint32_t tloc_hash(const t_tloc_id& tloc);

}  // namespace pol
