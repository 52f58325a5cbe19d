// SPDX-License-Identifier: Apache-2.0
// Evaluation of one policy by several threads, each with its own query.
#include <benchmark/benchmark.h>

#include "support/operator_policy.h"

namespace bench {
namespace {

// The policy is made before any thread starts.
void threads(benchmark::State& state) { evaluate(state, OperatorPolicy::get()); }

}  // namespace

void register_threads() {
  for (int count : {1, 2}) {
    benchmark::RegisterBenchmark(("W7/" + std::to_string(count)).c_str(), threads)
        ->Threads(count)
        ->UseRealTime();
  }
}

}  // namespace bench
