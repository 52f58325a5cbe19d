// SPDX-License-Identifier: Apache-2.0
// Policies of many sequences: tags that differ up to the last, and a policy as operators write
// them.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

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

void operator_policy(benchmark::State& state) {
  OperatorPolicy& policy = OperatorPolicy::get();
  evaluate(state, policy);
}

}  // namespace

void register_sequences() {
  for (uint32_t sequences : {1u, 10u, 100u, 1000u}) {
    benchmark::RegisterBenchmark(("W2/" + std::to_string(sequences)).c_str(), last_tag, sequences);
  }
  benchmark::RegisterBenchmark("W3", operator_policy);
}

}  // namespace bench
