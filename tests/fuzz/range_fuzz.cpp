// SPDX-License-Identifier: Apache-2.0
//
// A set of ranges against a walk over them: bytes become adds, removes and queries. Bounds come
// from one byte, so that ranges nest, touch and stand upside down.
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <vector>

#include "base/range_set.h"
#include "byte_reader.h"

namespace {

// Mostly small, at times at either end of what a site or VPN id can be.
uint64_t read_id(ByteReader* in) {
  uint8_t byte = in->byte();
  if (byte == 255) return UINT64_MAX;
  if (byte >= 250) return uint64_t{UINT32_MAX} - (255 - byte);
  return byte;
}

void check(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// Unless it is there.
void add(uint64_t low, uint64_t high, pol::RangeSet* set, std::deque<pol::RangeNode>* store,
         std::vector<pol::RangeNode*>* elements) {
  pol::RangeNode* there = nullptr;
  for (pol::RangeNode* node : *elements) {
    if (node->low == low && node->high == high) there = node;
  }
  check(set->find(low, high) == there, "find");
  pol::RangePlace place;
  check(set->find_place(low, high, &place) && place.there == there, "place");
  if (there != nullptr) return;
  pol::RangeNode& node = store->emplace_back();
  node = {};
  node.low = low;
  node.high = high;
  set->add(&node, place);
  elements->push_back(&node);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  pol::RangeSet set = {};
  std::deque<pol::RangeNode> store;       // where nodes live
  std::vector<pol::RangeNode*> elements;  // those in the set, oldest first
  while (!in.done()) {
    const uint8_t what = in.byte() % 4;
    if (what == 0 && !elements.empty()) {
      const size_t at = in.byte() % elements.size();
      check(set.take(elements[at]->low, elements[at]->high) == elements[at], "take");
      elements.erase(elements.begin() + static_cast<std::ptrdiff_t>(at));
    } else if (what == 1) {
      const uint64_t id = read_id(&in);
      bool expected = false;
      for (const pol::RangeNode* node : elements) {
        expected = expected || (node->low <= id && id <= node->high);
      }
      check(set.holds(id) == expected, "the set and the walk differ");
      const pol::RangeNode* holding = set.holding(id);
      check((holding != nullptr) == expected, "holding");
      check(!expected || (holding->low <= id && id <= holding->high), "holds another");
    } else {
      // One range, or a run of them that takes a tree of some height.
      const uint64_t low = read_id(&in);
      const uint64_t high = read_id(&in);
      const unsigned run = what == 3 ? in.byte() : 1;
      for (unsigned i = 0; i < run; ++i)
        add(low + i * (high & 3), high - i, &set, &store, &elements);
    }
  }
  size_t at = 0;
  for (const pol::RangeNode& node : set.in_order()) {
    check(at < elements.size() && &node == elements[at], "the order of adding is lost");
    ++at;
  }
  check(at == elements.size(), "an element is lost");
  set.clear([](pol::RangeNode*) {});
  check(set.empty() && !set.holds(0), "not empty when cleared");
  return 0;
}
