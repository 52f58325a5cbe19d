// SPDX-License-Identifier: Apache-2.0
#include "config_mirror.h"

#include <algorithm>

namespace polctl {

void LeafMirror::merge(const t_yarrow_change& change) {
  for_each_leaf(change, [this](const Scope& scope, const t_yarrow_tag_value& value) {
    if (value.v.type == C_NOEXISTS) {
      leaves_.erase({scope, value.tag});
      return;
    }
    Leaf& leaf = leaves_[{scope, value.tag}];
    leaf.value = value;
    if (value.v.type == C_BUF) {
      leaf.text.assign(reinterpret_cast<const char*>(value.v.val.buf.ptr), value.v.val.buf.size);
    }
  });
}

size_t LeafMirror::count(uint32_t tag) const {
  return static_cast<size_t>(std::count_if(
      leaves_.begin(), leaves_.end(), [&](const auto& leaf) { return leaf.first.second == tag; }));
}

std::vector<t_yarrow_tag_value> LeafMirror::values() const {
  std::vector<t_yarrow_tag_value> values;
  Scope open;
  auto container = [&](uint32_t tag, uint32_t type) {
    t_yarrow_tag_value value = {};
    value.tag = tag;
    value.v.type = type;
    values.push_back(value);
  };
  auto enter = [&](const Scope& scope) {
    size_t common = 0;
    while (common < open.size() && common < scope.size() && open[common] == scope[common]) ++common;
    for (; open.size() > common; open.pop_back()) container(open.back(), C_XMLEND);
    for (; open.size() < scope.size(); open.push_back(scope[open.size()])) {
      container(scope[open.size()], C_XMLBEGIN);
    }
  };
  // In the map's order a container's own leaves come before those of containers in it, as in the
  // schema's order.
  for (const auto& [place, leaf] : leaves_) {
    enter(place.first);
    t_yarrow_tag_value value = leaf.value;
    if (value.v.type == C_BUF) {
      auto* text = reinterpret_cast<const uint8_t*>(leaf.text.c_str());
      value.v.val.buf.ptr = const_cast<uint8_t*>(text);
    }
    values.push_back(value);
  }
  enter({});
  return values;
}

}  // namespace polctl
