// SPDX-License-Identifier: Apache-2.0
//
// Prefixes cut by the elements of lists. An element asks a prefix for its first bits and for its length, so
// it is a box in the plane of addresses and lengths. Boxes nest by address or lie apart: a sweep over the
// addresses keeps those around it on a stack. Between two borders what holds hangs on the length alone, and
// only lengths for which that has changed are looked at; those of which no prefix begins there wait.
#include <algorithm>
#include <array>
#include <utility>

#include "field_classes.h"

namespace polctl {

namespace {

constexpr unsigned kMaxLengths = 129;

class Sweep {
 public:
  Sweep(uint8_t family, size_t atoms, ClassMaker* maker)
      : family_(family),
        width_(family == 4 ? 32 : 128),
        last_(~Wide{0} >> (128 - width_)),
        maker_(*maker),
        counts_(atoms * (width_ + 1)),
        stamps_(atoms) {
    changed_.fill(true);
  }

  // REQUIRES: boxes by start, of those that start alike the larger first.
  void run(const std::vector<PrefixBox>& boxes) {
    for (const PrefixBox& box : boxes) {
      close_before(box.start);
      move_to(box.start);
      count(box, 1);
      open_.push_back(&box);
    }
    while (!open_.empty()) close_last();
    if (!over_) segment(at_, last_);
  }

 private:
  void close_before(Wide start) {
    while (!open_.empty() && open_.back()->end < start) close_last();
  }

  void close_last() {
    const PrefixBox& box = *open_.back();
    if (!over_ && at_ <= box.end) {
      segment(at_, box.end);
      over_ = box.end == last_;
      at_ = box.end + 1;
    }
    open_.pop_back();
    count(box, -1);
  }

  void move_to(Wide start) {
    if (at_ < start) segment(at_, start - 1);
    at_ = start;
  }

  void count(const PrefixBox& box, int by) {
    int* counts = &counts_[box.atom * (width_ + 1)];
    for (unsigned length = box.low; length <= box.high; ++length) {
      bool held = counts[length] > 0;
      counts[length] += by;
      if (held == (counts[length] > 0)) continue;
      sums_[length].flip(box.atom);
      changed_[length] = true;
    }
    lowest_ = std::min<unsigned>(lowest_, box.low);
    highest_ = std::max<unsigned>(highest_, box.high);
  }

  // Nothing changes from `first` to `last`. Lengths without a change since they were looked at last have
  // their class.
  void segment(Wide first, Wide last) {
    for (unsigned length = lowest_; length <= highest_; ++length) {
      if (!changed_[length]) continue;
      const Wide rest = length == 0 ? last_ : length >= width_ ? Wide{0} : last_ >> length;
      Wide begin = first;
      if ((first & rest) != 0) {
        if ((first | rest) == last_) continue;
        begin = (first | rest) + 1;
      }
      if (begin > last) continue;
      changed_[length] = false;
      Value member;
      member.family = family_;
      member.length = static_cast<uint8_t>(length);
      member.number = begin;
      maker_.point(sums_[length], member, [&] { return holding(length); });
    }
    while (lowest_ <= highest_ && !changed_[lowest_]) ++lowest_;
    while (lowest_ < highest_ && !changed_[highest_]) --highest_;
    if (lowest_ <= highest_) return;
    lowest_ = kMaxLengths;
    highest_ = 0;
  }

  std::vector<uint32_t> holding(unsigned length) {
    std::vector<uint32_t> held;
    ++stamp_;
    for (const PrefixBox* box : open_) {
      if (length < box->low || length > box->high || stamps_[box->atom] == stamp_) continue;
      stamps_[box->atom] = stamp_;
      held.push_back(box->atom);
    }
    return held;
  }

  uint8_t family_;
  unsigned width_;
  Wide last_;
  ClassMaker& maker_;
  std::vector<int> counts_;  // by atom and length, the boxes around
  std::array<ClassMaker::Sum, kMaxLengths> sums_ = {};
  std::array<bool, kMaxLengths> changed_ = {};
  unsigned lowest_ = 0;  // no length outside these has changed
  unsigned highest_ = width_;
  std::vector<const PrefixBox*> open_;
  std::vector<uint64_t> stamps_;
  uint64_t stamp_ = 0;
  Wide at_ = 0;
  bool over_ = false;
};

struct Lengths {
  int low;
  int high;
};

// As an operator asks for them, whatever the element's own length.
Lengths asked_lengths(const t_pol_pfx_record& element) {
  const int own = element.prefix.len;
  const int min = element.min;
  const int max = element.max;
  switch (element.op) {
    case 0:
    case POL_PFX_EQ:
      return {own, own};
    case POL_PFX_NE:
      return {own + 1, 255};  // shorter ones do not lie within it
    case POL_PFX_RANGE:
      return {min, max};
    case POL_PFX_XRANGE:
      return {min + 1, max - 1};
    case POL_PFX_LE:
      return {0, max};
    case POL_PFX_LT:
      return {0, min - 1};
    case POL_PFX_GE:
      return {min, 255};
    case POL_PFX_GT:
      return {min + 1, 255};
    default:
      return {1, 0};
  }
}

}  // namespace

std::optional<PrefixBox> box_of(const t_pol_pfx_record& element, uint8_t family, uint32_t atom) {
  const Value base = value_of(element.prefix.addr);
  const bool on_bounds = element.op != 0 && element.op != POL_PFX_EQ && element.op != POL_PFX_NE;
  // Of all zeros, an element that asks for a length in bounds asks for that alone.
  const bool any_family = element.prefix.len == 0 && base.number == 0 && on_bounds;
  if (!any_family && (base.family == 0 || base.family != family)) return std::nullopt;
  const int width = family == 4 ? 32 : family == 6 ? 128 : 0;
  Lengths lengths = asked_lengths(element);
  lengths.low = std::max<int>(lengths.low, element.prefix.len);
  lengths.high = std::min(lengths.high, width);
  if (lengths.low > lengths.high) return std::nullopt;
  const auto free_bits = static_cast<unsigned>(width - element.prefix.len);
  const Wide rest = free_bits == 0 ? Wide{0} : ~Wide{0} >> (128 - free_bits);
  const Wide start = base.number & ~rest;
  return PrefixBox{start, start | rest, atom, static_cast<uint8_t>(lengths.low),
                   static_cast<uint8_t>(lengths.high)};
}

void sweep_prefixes(std::vector<PrefixBox> boxes, uint8_t family, ClassMaker* maker) {
  std::sort(boxes.begin(), boxes.end(), [](const PrefixBox& a, const PrefixBox& b) {
    return a.start != b.start ? a.start < b.start : a.end > b.end;
  });
  size_t atoms = 0;
  for (const PrefixBox& box : boxes) atoms = std::max<size_t>(atoms, box.atom + 1);
  Sweep(family, atoms, maker).run(boxes);
}

}  // namespace polctl
