// SPDX-License-Identifier: Apache-2.0
#include "counters.h"

#include <algorithm>

#include "policy/pol_types.h"

namespace polctl {

void Decisions::add(const Decisions& other) {
  default_.accepted += other.default_.accepted;
  default_.rejected += other.default_.rejected;
  for (const auto& [sequence, decided] : other.rows_) {
    Decided& row = rows_[sequence];
    row.accepted += decided.accepted;
    row.rejected += decided.rejected;
  }
}

Decided Decisions::by_sequence(uint32_t sequence) const {
  auto row = rows_.find(sequence);
  return row != rows_.end() ? row->second : Decided();
}

void Timed::add(double ms) {
  ++count;
  last_ms = ms;
  sum_ms += ms;
  most_ms = std::max(most_ms, ms);
}

void Counters::add(const Policy& policy, const Decisions& decisions) {
  std::lock_guard<std::mutex> lock(mutex_);
  decisions_[policy].add(decisions);
}

Decisions Counters::of(const Policy& policy) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto row = decisions_.find(policy);
  return row != decisions_.end() ? row->second : Decisions();
}

void Counters::keep(const ConfiguredNames& configured) {
  auto is_configured = [&configured](const Policy& policy) {
    auto names = configured.find(policy.first == POL_KIND_ROUTE ? "/policy/control-policy"
                                                                : "/policy/membership-policy");
    return names != configured.end() && names->second.count(policy.second) != 0;
  };
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(decisions_, [&](const auto& row) { return !is_configured(row.first); });
}

void Counters::clear() {
  host = {};
  since_ = std::chrono::system_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  decisions_.clear();
}

}  // namespace polctl
