// SPDX-License-Identifier: Apache-2.0
// Policies of many sequences: tags that differ up to the last, and a policy as operators write
// them.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

#include "support/mixed_policy.h"
#include "support/operator_policy.h"
#include "support/rig.h"

namespace bench {
namespace {

Rig& tag_rig(uint32_t sequences) {
  static std::map<uint32_t, std::unique_ptr<Rig>> rigs;
  auto& rig = rigs[sequences];
  if (rig == nullptr) {
    rig = std::make_unique<Rig>("W2-" + std::to_string(sequences));
    for (uint32_t number = 1; number <= sequences; ++number) {
      uint8_t changed = 0;
      pol_entry_match_tag_add(context(), rig->add_sequence(number), number, &changed);
    }
    rig->tell();
  }
  return *rig;
}

void last_tag(benchmark::State& state, uint32_t sequences) {
  Rig& rig = tag_rig(sequences);
  t_pol_route_attr attr = attributes();
  attr.tag = sequences;
  t_pol_route_query query = query_for(&attr);
  for (auto step : state) benchmark::DoNotOptimize(pol_execute(rig.user, &query));
}

// The same while a change waits to be told: every sequence is tried.
void last_tag_walking(benchmark::State& state, uint32_t sequences) {
  Rig& rig = tag_rig(sequences);
  uint8_t changed = 0;
  pol_entry_find_or_create(context(), rig.policy, UINT32_MAX, &changed);
  last_tag(state, sequences);
  pol_entry_find_and_delete(context(), rig.policy, UINT32_MAX, &changed);
  rig.tell();
}

void mixed(benchmark::State& state, uint32_t sequences, bool clauses, bool walk) {
  MixedPolicy& policy = MixedPolicy::get(sequences, clauses);
  (walk ? evaluate_walking
        : static_cast<void (*)(benchmark::State&, const MixedPolicy&)>(evaluate))(state, policy);
}

// One clause changed and told: what a policy's own change costs.
void rebuild(benchmark::State& state, uint32_t sequences) {
  MixedPolicy& policy = MixedPolicy::get(sequences, true);
  uint8_t changed = 0;
  t_pol_entry* entry = pol_entry_find(context(), policy.rig.policy, 1, nullptr);
  uint32_t tag = 0;
  for (auto step : state) {
    pol_entry_match_tag_add(context(), entry, 1 + tag++ % 2, &changed);
    policy.rig.tell();
  }
}

void operator_policy(benchmark::State& state) {
  OperatorPolicy& policy = OperatorPolicy::get();
  evaluate(state, policy);
}

}  // namespace

void register_sequences() {
  for (uint32_t sequences : {1u, 10u, 100u, 1000u, 10000u}) {
    const std::string name = "W2/" + std::to_string(sequences);
    benchmark::RegisterBenchmark(name.c_str(), last_tag, sequences);
    benchmark::RegisterBenchmark((name + "/walk").c_str(), last_tag_walking, sequences);
  }
  for (uint32_t sequences : {10u, 100u, 1000u}) {
    for (bool clauses : {false, true}) {
      const std::string name = (clauses ? "W2m/" : "W2p/") + std::to_string(sequences);
      benchmark::RegisterBenchmark(name.c_str(), mixed, sequences, clauses, false);
      benchmark::RegisterBenchmark((name + "/walk").c_str(), mixed, sequences, clauses, true);
    }
  }
  benchmark::RegisterBenchmark("rebuild/1000", rebuild, 1000u);
  benchmark::RegisterBenchmark("W3", operator_policy);
}

}  // namespace bench
