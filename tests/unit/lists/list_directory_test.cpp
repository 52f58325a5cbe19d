// SPDX-License-Identifier: Apache-2.0
//
// The directory of what lists hold against plain sets: hundreds of lists at few places, whose
// elements come and go. A list may be named without need, but not where it has no element around
// the value; none that holds the value may be missed.
#include "lists/list_directory.h"

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <vector>

#include "lists/pol_pfx_index.h"
#include "support/policy_fixture.h"

namespace {

using pol::NamedHead;

// Prefixes around and beside each other.
constexpr std::array<std::pair<uint32_t, uint8_t>, 4> kPlaces = {
    {{0, 0}, {0x0a000000, 8}, {0x0a010000, 16}, {0x0b000000, 8}}};
constexpr size_t kLists = 700;
constexpr unsigned kMost = 64;

t_pfx_entry element_at(size_t place, uint8_t least) {
  t_pol_pfx_record record = {POL_PFX_GE, {{KEL_AF_INET, {}}, kPlaces[place].second}, least, 0};
  record.prefix.addr.addr.v4 = kPlaces[place].first;
  t_pfx_entry element = {};
  pol::pfx_entry_fill(&element, record);
  return element;
}

struct Held {
  const NamedHead* list;
  size_t place;
  uint8_t least;
};

void expect_named(const pol::ListDirectory& directory, const std::vector<Held>& held,
                  uint32_t address, uint8_t length) {
  std::set<const NamedHead*> must, may;
  size_t crowd = 0;
  for (size_t place = 0; place < kPlaces.size(); ++place) {
    const auto [base, bits] = kPlaces[place];
    const bool around = bits <= length && (bits == 0 || (address ^ base) >> (32 - bits) == 0);
    std::set<const NamedHead*> here;
    for (const Held& one : held) {
      if (one.place != place || !around) continue;
      here.insert(one.list);
      if (length >= std::max(one.least, bits)) must.insert(one.list);
    }
    may.insert(here.begin(), here.end());
    crowd = std::max(crowd, here.size());
  }
  const NamedHead* found[kMost];
  const unsigned count = pol::directory_ask<pol::CountByTricks>(
      directory.narrow, uint64_t{address} << 32, length, found, kMost);
  if (count > kMost) {
    // Too many to name, or at one place too many to look through.
    EXPECT_TRUE(may.size() >= kMost / kPlaces.size() || crowd > pol::kDirectoryMostAtPlace);
    return;
  }
  const std::set<const NamedHead*> named(found, found + count);
  EXPECT_TRUE(std::ranges::includes(named, must));
  EXPECT_TRUE(std::ranges::includes(may, named));
}

TEST(ListDirectoryTest, NamesEachListThatHoldsTheValueAndNoneWithoutAnElementAroundIt) {
  pol::ListDirectory* directory = pol::directory_make();
  pol::DirectoryUser user = {};
  pol::directory_use(directory, &user);
  std::vector<NamedHead> lists(kLists);
  for (NamedHead& list : lists) pol::directory_enrol(directory, &list);
  std::mt19937 random(3);
  std::vector<Held> held;
  for (int step = 0; step < 30'000; ++step) {
    // Few, then many, then none: tables grow and shrink.
    const bool grows = step % 10'000 < 3000;
    if (grows ? random() % 8 != 0 : held.empty()) {
      const size_t few = step < 10'000 ? 12 : kLists;
      const Held one = {&lists[random() % few], random() % kPlaces.size(),
                        static_cast<uint8_t>(random() % 25)};
      held.push_back(one);
      pol::directory_prefix(*one.list, element_at(one.place, one.least), true);
    } else if (!held.empty()) {
      std::swap(held[random() % held.size()], held.back());
      const Held one = held.back();
      held.pop_back();
      pol::directory_prefix(*one.list, element_at(one.place, one.least), false);
    }
    if (step % 20 != 0) continue;
    for (uint32_t address : {0x0a010203u, 0x0aff0000u, 0x0b000001u, 0xc0000000u}) {
      expect_named(*directory, held, address, static_cast<uint8_t>(random() % 33));
    }
  }
  pol::directory_let_go(&user);
}

}  // namespace
