// SPDX-License-Identifier: Apache-2.0
//
// range_set.h - ranges of ids in the order they were added, and in O(log n) whether any holds an
// id.
//
// Beside the queue stands a B-tree of the ranges by (low, high), whose inner pages know the highest
// `high` of each page below. Pages have the bounds of what they lead to side by side, so that a
// descent reads few cache lines; adding or removing one range touches one path. A few ranges are
// walked and have no pages. Ranges with low above high are kept and hold nothing. Pages are
// uncounted memory. A set of all zero bytes is empty.
//
// Invariants
//   1. No two ranges have the same (low, high).
//   2. Within a page items ascend by (low, high); an inner page's item is at or below all of the
//      page that it leads to, and above all of the pages before.
//   3. No page is empty.
#pragma once

#include <cstdint>

#include "base/tail_queue.h"

namespace pol {

struct RangeNode {
  TailLink<RangeNode> link;
  uint64_t low;
  uint64_t high;  // inclusive
};

struct RangePage {
  static constexpr unsigned kRoom = 16;

  // How many of its items start at or below `id`. All of `low` is looked at, without a branch to
  // guess.
  unsigned starting(uint64_t id) const {
    unsigned n = 0;
    for (uint64_t start : low) n += start <= id ? 1 : 0;
    return n < count ? n : count;
  }

  unsigned count;
  uint64_t low[kRoom];  // the greatest number beyond the last item
  uint64_t high[kRoom];
  union {
    RangePage* pages[kRoom];
    RangeNode* ranges[kRoom];  // of a leaf
  };
};

struct RangeInnerPage {
  RangePage page;
  uint64_t ends[RangePage::kRoom];  // the greatest `high` below each item
};

// Where a range is or would be put, until the set changes.
struct RangePlace {
  // On average a page has three items at the least: no two thin ones that fit in one stand side by
  // side.
  static constexpr unsigned kMaxHeight = 24;
  struct Step {
    RangePage* page;
    unsigned at;
  };

  RangeNode* there;  // the range itself, if it is in the set
  RangePage* leaf;   // null while few
  unsigned at;
  unsigned depth;
  Step steps[kMaxHeight];  // an item of each inner page, from the root down
};

class RangeSet {
 public:
  using Queue = TailQueue<RangeNode, &RangeNode::link>;

  const Queue& in_order() const { return in_order_; }
  bool empty() const { return in_order_.empty(); }
  RangeNode* find(uint64_t low, uint64_t high) const;
  // Looks for a range, and where it is not there makes room for it. False when there is no memory
  // for that.
  [[nodiscard]] bool find_place(uint64_t low, uint64_t high, RangePlace* place);
  // REQUIRES: the place of the range, which is not there.
  void add(RangeNode* node, const RangePlace& place);
  // The range, taken out; null when it is not in the set.
  RangeNode* take(uint64_t low, uint64_t high);

  // Of what starts at or below `id` in a page, all but the last item lie there whole, so one holds
  // it exactly when the greatest end does.
  bool holds(uint64_t id) const {
    const RangePage* page = root_;
    if (page == nullptr) return walk(id) != nullptr;
    for (unsigned height = height_;; --height) {
      unsigned starting = page->starting(id);
      if (starting == 0) return false;
      if (height > 0) --starting;
      const uint64_t* ends = ends_of(page, height);
      for (unsigned i = 0; i < starting; ++i) {
        if (ends[i] >= id) return true;
      }
      if (height == 0) return false;
      page = page->pages[starting];
    }
  }

  // A range that holds the id, where several do no particular one; null when none does.
  const RangeNode* holding(uint64_t id) const;

  // Takes all elements out at once, oldest first, and gives each to `release`.
  template <class Release>
  void clear(Release release) {
    forget_pages();
    count_ = 0;
    while (RangeNode* node = in_order_.pop_front()) release(node);
  }

 private:
  static const uint64_t* ends_of(const RangePage* page, unsigned height) {
    return height > 0 ? reinterpret_cast<const RangeInnerPage*>(page)->ends : page->high;
  }

  const RangeNode* walk(uint64_t id) const {
    for (const RangeNode& node : in_order_) {
      if (node.low <= id && id <= node.high) return &node;
    }
    return nullptr;
  }

  void descend(uint64_t low, uint64_t high, RangePlace* place) const;
  bool make_room(uint64_t low, uint64_t high);
  bool make_root();
  bool raise_root();
  void lower_root();
  void forget_pages();

  Queue in_order_;
  RangePage* root_;  // null while few
  unsigned height_;  // of the root above the leaves
  unsigned count_;
};

}  // namespace pol
