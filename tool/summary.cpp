// SPDX-License-Identifier: Apache-2.0
#include "summary.h"

#include <fmt/format.h>

#include <algorithm>

#include "policy/pol_util.h"

namespace polctl {

namespace {

constexpr size_t kIdleShown = 10;

std::string idle_text(const std::vector<uint32_t>& idle) {
  std::string text =
      idle.size() == 1 ? "No route was decided by sequence " : "No route was decided by sequences ";
  for (size_t i = 0; i < std::min(idle.size(), kIdleShown); ++i) {
    text += fmt::format("{}{}", i == 0 ? "" : ", ", idle[i]);
  }
  if (idle.size() > kIdleShown) text += fmt::format(" and {} more", idle.size() - kIdleShown);
  return text + ".\n";
}

}  // namespace

void Summary::count(const Verdict& verdict) {
  const t_pol_explain_step& decision = verdict.decision;
  bool is_default = decision.is_default != 0;
  Row& row = rows_[{is_default, is_default ? 0 : decision.sequence, verdict.action}];
  if (row.routes++ == 0) row.example = route_text(verdict);
  ++total_;
}

void Summary::add(const Summary& later) {
  for (const auto& [key, counted] : later.rows_) {
    Row& row = rows_[key];
    if (row.routes == 0) row.example = counted.example;
    row.routes += counted.routes;
  }
  total_ += later.total_;
}

void Summary::print(const std::vector<uint32_t>& sequences, Output* out,
                    const Palette& palette) const {
  Table table("rlrrl", {{"sequence"}, {"action"}, {"routes"}, {"share"}, {"first route"}});
  std::vector<uint32_t> deciding;
  for (const auto& [key, row] : rows_) {
    auto [is_default, sequence, action] = key;
    if (!is_default) deciding.push_back(sequence);
    double share = 100.0 * static_cast<double>(row.routes) / static_cast<double>(total_);
    table.add({{is_default ? "default" : std::to_string(sequence)},
               {pol_util_action_str(action), action_colour(action)},
               {grouped(row.routes)},
               {fmt::format("{:.1f}%", share)},
               {row.example}});
  }
  table.add({{"total", Colour::Bold}, {}, {grouped(total_), Colour::Bold}});
  table.print(out, palette);

  std::vector<uint32_t> idle;
  for (uint32_t sequence : sequences) {
    if (!std::binary_search(deciding.begin(), deciding.end(), sequence)) idle.push_back(sequence);
  }
  if (!idle.empty()) out->print("\n{}", idle_text(idle));
}

}  // namespace polctl
