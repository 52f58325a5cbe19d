// SPDX-License-Identifier: Apache-2.0
#include "base/range_set.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "base/pol_memory.h"

namespace pol {
namespace {

constexpr unsigned kRoom = RangePage::kRoom;
constexpr unsigned kWalked = 4;        // so many ranges have no pages
constexpr unsigned kThin = kRoom / 4;  // so few items, and a page is merged with one beside it
constexpr unsigned kMerged = kRoom / 4 * 3;  // where they make no more than this

constexpr size_t kItemBytes = sizeof(uint64_t);  // in each array of a page
static_assert(sizeof(void*) == kItemBytes);

struct RangeKey {
  uint64_t low;
  uint64_t high;
};

uint64_t* page_ends(RangePage* page, unsigned height) {
  return height > 0 ? reinterpret_cast<RangeInnerPage*>(page)->ends : page->high;
}

RangePage* page_make(unsigned height) {
  const size_t size = height > 0 ? sizeof(RangeInnerPage) : sizeof(RangePage);
  auto* page = static_cast<RangePage*>(pol_malloc(size, MEM_UNCOUNTED));
  if (page == nullptr) return nullptr;
  page->count = 0;
  std::fill_n(page->low, kRoom, UINT64_MAX);
  return page;
}

void page_free(RangePage* page, unsigned height) {
  for (unsigned i = 0; height > 0 && i < page->count; ++i) page_free(page->pages[i], height - 1);
  pol_free(page, MEM_UNCOUNTED);
}

// How many items are at or below the key.
unsigned page_rank(const RangePage* page, RangeKey key) {
  unsigned n = 0;
  for (uint64_t low : page->low) n += low < key.low ? 1 : 0;
  while (n < page->count && page->low[n] == key.low && page->high[n] <= key.high) ++n;
  return n;
}

// The item below which the key lies or would lie.
unsigned page_turn(const RangePage* page, RangeKey key) {
  return std::max(page_rank(page, key), 1u) - 1;
}

uint64_t page_end(const RangePage* page, unsigned height) {
  const uint64_t* ends = page_ends(const_cast<RangePage*>(page), height);
  return *std::max_element(ends, ends + page->count);
}

// Copies `count` items to where others may stand; the caller keeps the counts.
void move_items(RangePage* to, unsigned to_at, RangePage* from, unsigned at, unsigned count,
                unsigned height) {
  const auto move = [=](auto* target, const auto* source) {
    memmove(target + to_at, source + at, count * kItemBytes);
  };
  move(to->low, from->low);
  move(to->high, from->high);
  move(to->pages, from->pages);
  if (height > 0) move(page_ends(to, height), page_ends(from, height));
}

void open_item(RangePage* page, unsigned at, unsigned height) {
  move_items(page, at + 1, page, at, page->count - at, height);
  ++page->count;
}

void close_item(RangePage* page, unsigned at, unsigned height) {
  --page->count;
  move_items(page, at, page, at + 1, page->count - at, height);
  page->low[page->count] = UINT64_MAX;
}

void put_page(RangePage* page, unsigned at, RangePage* below, unsigned height) {
  page->low[at] = below->low[0];
  page->high[at] = below->high[0];
  page->pages[at] = below;
  page_ends(page, height)[at] = page_end(below, height - 1);
}

void put_range(RangePage* leaf, unsigned at, RangeNode* node) {
  open_item(leaf, at, 0);
  leaf->low[at] = node->low;
  leaf->high[at] = node->high;
  leaf->ranges[at] = node;
}

// Parts the full page at an item: in halves, or to a new page alone where ranges come in order.
bool split(RangePage* page, unsigned at, unsigned height, bool in_order) {
  RangePage* full = page->pages[at];
  RangePage* rest = page_make(height - 1);
  if (rest == nullptr) return false;
  const unsigned kept = in_order ? kRoom - 1 : kRoom / 2;
  move_items(rest, 0, full, kept, kRoom - kept, height - 1);
  rest->count = kRoom - kept;
  full->count = kept;
  std::fill(full->low + kept, full->low + kRoom, UINT64_MAX);
  page_ends(page, height)[at] = page_end(full, height - 1);
  open_item(page, at + 1, height);
  put_page(page, at + 1, rest, height);
  return true;
}

// Merges the pages at an item and the next, if they make one that is not too full.
bool merge(RangePage* page, unsigned at, unsigned height) {
  if (at + 1 >= page->count) return false;
  RangePage* left = page->pages[at];
  RangePage* right = page->pages[at + 1];
  if (left->count + right->count > kMerged) return false;
  move_items(left, left->count, right, 0, right->count, height - 1);
  left->count += right->count;
  pol_free(right, MEM_UNCOUNTED);
  uint64_t* ends = page_ends(page, height);
  ends[at] = std::max(ends[at], ends[at + 1]);
  close_item(page, at + 1, height);
  return true;
}

// Puts an inner page in step with the page at an item, which lost something.
void shrink(RangePage* page, unsigned at, unsigned height) {
  RangePage* below = page->pages[at];
  if (below->count == 0) {
    pol_free(below, MEM_UNCOUNTED);
    close_item(page, at, height);
    return;
  }
  page_ends(page, height)[at] = page_end(below, height - 1);
  if (below->count > kThin || merge(page, at, height) || at == 0) return;
  merge(page, at - 1, height);
}

}  // namespace

RangeNode* RangeSet::find(uint64_t low, uint64_t high) const {
  RangePlace place;
  descend(low, high, &place);
  return place.there;
}

void RangeSet::descend(uint64_t low, uint64_t high, RangePlace* place) const {
  place->there = nullptr;
  place->leaf = nullptr;
  place->depth = 0;
  if (root_ == nullptr) {
    for (RangeNode& node : in_order_) {
      if (node.low == low && node.high == high) place->there = &node;
    }
    return;
  }
  RangePage* page = root_;
  for (unsigned height = height_; height > 0; --height) {
    const unsigned at = page_turn(page, {low, high});
    place->steps[place->depth++] = {page, at};
    page = page->pages[at];
  }
  place->leaf = page;
  place->at = page_rank(page, {low, high});
  if (place->at == 0) return;
  const unsigned last = place->at - 1;
  if (page->low[last] == low && page->high[last] == high) place->there = page->ranges[last];
}

const RangeNode* RangeSet::holding(uint64_t id) const {
  const RangePage* page = root_;
  if (page == nullptr) return walk(id);
  for (unsigned height = height_;; --height) {
    const unsigned starting = page->starting(id);
    if (starting == 0) return nullptr;
    const uint64_t* ends = ends_of(page, height);
    unsigned at = 0;
    while (at < starting - 1 && ends[at] < id) ++at;
    if (height == 0) return ends[at] >= id ? page->ranges[at] : nullptr;
    page = page->pages[at];
  }
}

bool RangeSet::make_root() {
  root_ = page_make(0);
  if (root_ == nullptr) return false;
  height_ = 0;
  for (RangeNode& node : in_order_) {
    put_range(root_, page_rank(root_, {node.low, node.high}), &node);
  }
  return true;
}

bool RangeSet::raise_root() {
  RangePage* above = page_make(height_ + 1);
  if (above == nullptr) return false;
  ++height_;
  above->count = 1;
  put_page(above, 0, root_, height_);
  root_ = above;
  return true;
}

void RangeSet::lower_root() {
  while (height_ > 0 && root_->count == 1) {
    RangePage* below = root_->pages[0];
    pol_free(root_, MEM_UNCOUNTED);
    root_ = below;
    --height_;
  }
}

void RangeSet::forget_pages() {
  if (root_ != nullptr) page_free(root_, height_);
  root_ = nullptr;
  height_ = 0;
}

// Parts the full pages on the range's way. Where memory for that cannot be had, what was parted
// stays so, and all that was in the set stays in it.
bool RangeSet::make_room(uint64_t low, uint64_t high) {
  if (root_->count == kRoom && !raise_root()) return false;
  const RangeKey key = {low, high};
  RangePage* page = root_;
  bool last = true;
  for (unsigned height = height_; height > 0; --height) {
    unsigned at = page_turn(page, key);
    last = last && at + 1 == page->count;
    const RangePage* below = page->pages[at];
    if (below->count == kRoom) {
      if (!split(page, at, height, last && page_rank(below, key) == kRoom)) return false;
      at = page_turn(page, key);
    }
    page = page->pages[at];
  }
  return true;
}

bool RangeSet::find_place(uint64_t low, uint64_t high, RangePlace* place) {
  descend(low, high, place);
  if (place->there != nullptr) return true;
  if (root_ == nullptr) {
    if (count_ < kWalked) return true;
    if (!make_root()) return false;
  } else {
    if (place->leaf->count < kRoom) return true;
    if (!make_room(low, high)) return false;
  }
  descend(low, high, place);
  return true;
}

void RangeSet::add(RangeNode* node, const RangePlace& place) {
  if (place.leaf != nullptr) put_range(place.leaf, place.at, node);
  for (unsigned i = 0; i < place.depth; ++i) {
    const auto [page, at] = place.steps[i];
    if (std::tie(node->low, node->high) < std::tie(page->low[at], page->high[at])) {
      page->low[at] = node->low;
      page->high[at] = node->high;
    }
    uint64_t& end = page_ends(page, 1)[at];
    end = std::max(end, node->high);
  }
  in_order_.push_back(node);
  ++count_;
}

RangeNode* RangeSet::take(uint64_t low, uint64_t high) {
  RangePlace place;
  descend(low, high, &place);
  RangeNode* node = place.there;
  if (node == nullptr) return nullptr;
  in_order_.remove(node);
  --count_;
  if (place.leaf == nullptr) return node;
  if (count_ <= kWalked / 2) {
    forget_pages();
    return node;
  }
  close_item(place.leaf, place.at - 1, 0);
  for (unsigned i = place.depth; i > 0; --i) {
    const auto [page, at] = place.steps[i - 1];
    const unsigned height = place.depth - i + 1;
    // Nothing changes further up.
    if (page->pages[at]->count > kThin && page_ends(page, height)[at] != high) return node;
    shrink(page, at, height);
  }
  lower_root();
  return node;
}

}  // namespace pol
