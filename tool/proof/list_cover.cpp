// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "field_classes.h"
#include "host/address_text.h"
#include "proof_findings.h"

namespace polctl {

namespace {

// The classes that each element holds, each element for itself.
FieldClasses classes_by_element(const ListModel& list) {
  FieldClasses classes;
  ClassMaker maker(list.elements.size(), &classes);
  std::vector<uint32_t> without_prefix;
  ClassMaker::Sum sum;
  for (uint8_t family : {uint8_t{4}, uint8_t{6}, uint8_t{0}}) {
    std::vector<PrefixBox> boxes;
    for (uint32_t i = 0; i < list.elements.size(); ++i) {
      auto box = box_of(list.elements[i].prefix, family, i);
      if (!box) continue;
      if (family != 0) {
        boxes.push_back(*box);
      } else {
        without_prefix.push_back(i);
        sum.flip(i);
      }
    }
    if (family != 0) sweep_prefixes(std::move(boxes), family, &maker);
  }
  maker.point(sum, {.absent = true}, [&] { return without_prefix; });
  return classes;
}

// From the last element to the first: one goes whose classes others hold too.
std::vector<Covered> covered_prefixes(const ListModel& list) {
  const FieldClasses classes = classes_by_element(list);
  const size_t count = list.elements.size();
  std::vector<std::vector<uint32_t>> holders(classes.members.size());
  for (uint32_t i = 0; i < count; ++i) {
    for (uint32_t each : classes.of_atoms[i]) holders[each].push_back(i);
  }
  std::vector<Covered> covered;
  std::vector<bool> gone(count);
  std::vector<size_t> named_for(count, SIZE_MAX);
  // Of those that are still there; what is gone need not be looked at again.
  auto another = [&](uint32_t held, uint32_t than) -> std::optional<uint32_t> {
    std::vector<uint32_t>& all = holders[held];
    while (!all.empty() && gone[all.back()]) all.pop_back();
    auto other = std::find_if(all.begin(), all.end(),
                              [&](uint32_t each) { return each != than && !gone[each]; });
    if (other == all.end()) return std::nullopt;
    return *other;
  };
  for (uint32_t i = static_cast<uint32_t>(count); i-- > 0;) {
    const std::vector<uint32_t>& own = classes.of_atoms[i];
    Covered found = {i, {}};
    bool shared = !own.empty();
    for (size_t at = 0; shared && at < own.size(); ++at) {
      std::optional<uint32_t> other = another(own[at], i);
      shared = other.has_value();
      if (!shared || named_for[*other] == i) continue;
      named_for[*other] = i;
      found.by.push_back(*other);
    }
    if (!shared) continue;
    gone[i] = true;
    covered.push_back(std::move(found));
  }
  std::reverse(covered.begin(), covered.end());
  return covered;
}

// By low end, the longest first: a range lies in the last one kept, or reaches beyond it. Of those kept
// both ends ascend, and one goes between two that meet.
std::vector<Covered> covered_ranges(const ListModel& list) {
  auto at = [&](size_t i) -> const t_pol_content_element& { return list.elements[i]; };
  std::vector<size_t> order;
  for (size_t i = 0; i < list.elements.size(); ++i) {
    if (at(i).low <= at(i).high) order.push_back(i);
  }
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return at(a).low != at(b).low ? at(a).low < at(b).low : at(a).high > at(b).high;
  });
  std::vector<size_t> gone;
  std::vector<size_t> kept;
  for (size_t i : order) {
    if (!kept.empty() && at(kept.back()).high >= at(i).high) {
      gone.push_back(i);
      continue;
    }
    const size_t count = kept.size();
    if (count > 1 && at(kept[count - 2]).high + 1 >= at(i).low) {
      gone.push_back(kept.back());
      kept.pop_back();
    }
    kept.push_back(i);
  }
  std::sort(gone.begin(), gone.end());
  std::vector<Covered> covered;
  for (size_t i : gone) {
    covered.push_back({i, {}});
    auto by = std::partition_point(kept.begin(), kept.end(),
                                   [&](size_t each) { return at(each).high < at(i).low; });
    for (; by != kept.end() && at(*by).low <= at(i).high; ++by) covered.back().by.push_back(*by);
  }
  return covered;
}

}  // namespace

std::vector<Covered> covered_elements(const ListModel& list) {
  if (list.type == POL_GRAPH_PREFIX_LIST) return covered_prefixes(list);
  if (list.type == POL_GRAPH_SITE_LIST || list.type == POL_GRAPH_VPN_LIST) {
    return covered_ranges(list);
  }
  return {};  // TLOCs and colors are there once
}

std::string element_text(const ListModel& list, const t_pol_content_element& element) {
  if (list.type == POL_GRAPH_PREFIX_LIST) return prefix_text(element.prefix.prefix);
  return element.low == element.high ? std::to_string(element.low)
                                     : fmt::format("{}-{}", element.low, element.high);
}

}  // namespace polctl
