// SPDX-License-Identifier: Apache-2.0
//
// list_directory.h - which lists of one family may hold a value, by one look-up, however many lists
// there are.
//
// Policies of many sequences have the lists that they name enrolled (core/pol_policy_index.h); from then
// on a list's elements are entered here as they come and leave as they go, each on one path of a trie.
// The directory rules lists out and nothing else: it may name a list that does not hold the value, never
// miss one that does. So a range of ids is entered as the one or two blocks of a power of two that cover
// it, and a TLOC by 32 bits of hash.
//
// Where memory for an element cannot be had the directory is `broken`: it answers for no list until
// it was cleared. It is cleared when the last index lets go of it. All memory is uncounted. A directory
// of all zero bytes is empty.
#pragma once

#include <cstdint>

#include "base/arena.h"
#include "base/prefix_trie.h"
#include "policy/pol_types.h"

struct t_pfx_entry;

namespace pol {

struct NamedHead;

struct ListDirectory {
  Arena arena;
  PrefixTrie<uint64_t> narrow;  // ids, hashes, IPv4 prefixes: 32 bits
  PrefixTrie<Bits128> wide;     // IPv6 prefixes
  uint32_t generation;          // what NamedHead::enrolled holds while the list is in
  uint32_t users;               // indexes that rely on it
  bool broken;

  // A list that shares its place with others, or has it several times.
  struct Item {
    const NamedHead* list;
    uint32_t count;
    uint8_t low;  // what all its elements at this place take lies within
    uint8_t high;
  };
  struct Table {
    uint32_t count;
    uint32_t room;
    Item items[1];  // `count`, by address of the list
  };
};

bool directory_has(const ListDirectory& directory, const NamedHead& list);
// Marks the list as enrolled; its elements are the caller's to enter.
void directory_enrol(ListDirectory* directory, NamedHead* list);
// Forgets all lists.
void directory_clear(ListDirectory* directory);

// What the families call as elements come and go; nothing for a list that is not enrolled. `enters`
// is false for an element that leaves.
void directory_range(ListDirectory* directory, const NamedHead& list, uint64_t low, uint64_t high,
                     bool enters);
void directory_tloc(ListDirectory* directory, const NamedHead& list, const t_tloc_id& tloc,
                    bool enters);
void directory_color(ListDirectory* directory, const NamedHead& list, uint16_t color, bool enters);
void directory_prefix(ListDirectory* directory, const NamedHead& list, const t_pfx_entry& element,
                      bool enters);

// The lists that may hold a value: at most `most` into `found`. Returns their number, or more than
// `most` when there are more, or too many to look through.
unsigned directory_ask(const ListDirectory& directory, uint32_t id, const NamedHead** found,
                       unsigned most);
// REQUIRES: IPv4 or IPv6.
unsigned directory_ask(const ListDirectory& directory, const t_ipprefix& prefix,
                       const NamedHead** found, unsigned most);
uint32_t tloc_hash(const t_tloc_id& tloc);

}  // namespace pol
