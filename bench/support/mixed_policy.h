// SPDX-License-Identifier: Apache-2.0
//
// mixed_policy.h - policies of many sequences, each with a prefix list of its own, alone or among
// clauses as an operator mixes them; and routes for them, with what a plain walk over the same makes of
// them.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "support/rig.h"

namespace bench {

struct MixedPolicy {
  struct Question {
    t_ipprefix prefix;
    t_tloc_id tloc;
    uint32_t tag;
    uint32_t preference;
    uint32_t site;
    uint32_t vpn;
  };

  // Made on first use. Not `mixed`: the prefix list is the only clause. Lists have 50 elements; `uneven`
  // 50 to 100,000: of a hundred one, four of 10,000, fifteen of 1,000.
  static MixedPolicy& get(uint32_t sequences, bool mixed, bool uneven = false);

  explicit MixedPolicy(const std::string& name) : rig(name) {}

  Rig rig;
  std::vector<Question> questions;
};

// One route after the other.
void evaluate(benchmark::State& state, const MixedPolicy& policy);
// The same between a change and its notification, when every sequence is tried.
void evaluate_walking(benchmark::State& state, const MixedPolicy& policy);

}  // namespace bench
