// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
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
  for (uint8_t family : {uint8_t{4}, uint8_t{6}}) {
    std::vector<PrefixBox> boxes;
    for (uint32_t i = 0; i < list.elements.size(); ++i) {
      auto box = box_of(list.elements[i].prefix, family, i);
      if (box) boxes.push_back(*box);
    }
    sweep_prefixes(std::move(boxes), family, &maker);
  }
  return classes;
}

std::vector<Covered> covered_prefixes(const ListModel& list) {
  const FieldClasses classes = classes_by_element(list);
  std::vector<uint32_t> holders(classes.members.size());
  std::vector<std::vector<uint32_t>> elements(classes.members.size());
  for (uint32_t i = 0; i < list.elements.size(); ++i) {
    for (uint32_t each : classes.of_atoms[i]) {
      ++holders[each];
      elements[each].push_back(i);
    }
  }
  std::vector<Covered> covered;
  std::vector<bool> gone(list.elements.size());
  for (uint32_t i = static_cast<uint32_t>(list.elements.size()); i-- > 0;) {
    const std::vector<uint32_t>& own = classes.of_atoms[i];
    auto shared = [&](uint32_t each) { return holders[each] > 1; };
    if (own.empty() || !std::all_of(own.begin(), own.end(), shared)) continue;
    gone[i] = true;
    Covered found = {i, {}};
    for (uint32_t each : own) {
      --holders[each];
      auto stays = [&](uint32_t other) { return !gone[other]; };
      auto by = std::find_if(elements[each].begin(), elements[each].end(), stays);
      if (std::find(found.by.begin(), found.by.end(), *by) == found.by.end()) {
        found.by.push_back(*by);
      }
    }
    covered.push_back(std::move(found));
  }
  std::reverse(covered.begin(), covered.end());
  return covered;
}

// By low end, the longest first: a range lies in the last one kept, or reaches beyond it. Of those kept
// both ends ascend, and one can go between two that meet.
std::vector<Covered> covered_ranges(const ListModel& list) {
  std::vector<size_t> order;
  for (size_t i = 0; i < list.elements.size(); ++i) {
    if (list.elements[i].low <= list.elements[i].high) order.push_back(i);
  }
  auto at = [&](size_t i) -> const t_pol_content_element& { return list.elements[i]; };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return at(a).low != at(b).low ? at(a).low < at(b).low : at(a).high > at(b).high;
  });
  std::vector<Covered> covered;
  std::vector<size_t> kept;
  for (size_t i : order) {
    if (!kept.empty() && at(kept.back()).high >= at(i).high) {
      covered.push_back({i, {kept.back()}});
    } else {
      kept.push_back(i);
    }
  }
  for (size_t i = 1; i + 1 < kept.size();) {
    bool meet = at(kept[i - 1]).high + 1 >= at(kept[i + 1]).low;
    if (meet) {
      covered.push_back({kept[i], {kept[i - 1], kept[i + 1]}});
      kept.erase(kept.begin() + static_cast<ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  std::sort(covered.begin(), covered.end(),
            [](const Covered& a, const Covered& b) { return a.element < b.element; });
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
