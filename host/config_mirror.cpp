// SPDX-License-Identifier: Apache-2.0
#include "config_mirror.h"

#include <algorithm>

namespace polctl {

namespace {

std::string text_of(const t_yarrow_value& value) {
  return {reinterpret_cast<const char*>(value.val.buf.ptr), value.val.buf.size};
}

// Lets a text that was copied be the value's.
void point_at(const std::string& text, t_yarrow_value* value) {
  value->val.buf.ptr = const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(text.c_str()));
}

}  // namespace

void LeafMirror::merge(const t_yarrow_change& change) {
  for_each_leaf(change, [this](const Scope& scope, const t_yarrow_tag_value& value) {
    if (value.v.type == C_NOEXISTS) {
      leaves_.erase({scope, value.tag});
      return;
    }
    Leaf& leaf = leaves_[{scope, value.tag}];
    leaf.value = value;
    leaf.texts.clear();
    leaf.elements.clear();
    if (value.v.type == C_BUF) leaf.texts.push_back(text_of(value.v));
    if (value.v.type != C_LIST) return;
    for (uint32_t i = 0; i < value.v.val.list.size; ++i) {
      leaf.elements.push_back(value.v.val.list.ptr[i]);
      if (leaf.elements.back().type == C_BUF) leaf.texts.push_back(text_of(leaf.elements.back()));
    }
    // Once the texts stand still.
    for (size_t i = 0; i < leaf.texts.size(); ++i) point_at(leaf.texts[i], &leaf.elements[i]);
  });
}

size_t LeafMirror::count(uint32_t tag) const {
  return static_cast<size_t>(std::count_if(
      leaves_.begin(), leaves_.end(), [&](const auto& leaf) { return leaf.first.second == tag; }));
}

size_t LeafMirror::count_in(uint32_t container) const {
  return static_cast<size_t>(std::count_if(leaves_.begin(), leaves_.end(), [&](const auto& leaf) {
    const Scope& scope = leaf.first.first;
    return std::find(scope.begin(), scope.end(), container) != scope.end();
  }));
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
    if (value.v.type == C_BUF) point_at(leaf.texts.front(), &value.v);
    if (value.v.type == C_LIST) {
      value.v.val.list.ptr = const_cast<t_yarrow_value*>(leaf.elements.data());
    }
    values.push_back(value);
  }
  enter({});
  return values;
}

std::string text_key(const t_yarrow_change& change, uint32_t at) {
  return text_of(change.keys[at]);
}

void note_name(std::string_view path, const t_yarrow_change& change, ConfiguredNames* names) {
  if (change.op == YARROW_DELETED) {
    (*names)[path].erase(text_key(change, 0));
  } else if (change.op == YARROW_CREATED) {
    (*names)[path].insert(text_key(change, 0));
  }
}

t_yarrow_change with_values(const t_yarrow_change& change, uint32_t op,
                            const std::vector<t_yarrow_tag_value>& values) {
  t_yarrow_change told = change;
  told.op = op;
  told.value_count = static_cast<uint32_t>(values.size());
  told.values = values.data();
  return told;
}

}  // namespace polctl
