// SPDX-License-Identifier: Apache-2.0
//
// operator_policy.h - 20 sequences of two or three clauses, each with its own prefix list of 50,
// that set preference and tag; and routes of which half are accepted somewhere in it.
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

#include "support/rig.h"

namespace bench {

struct OperatorPolicy {
  static OperatorPolicy& get();

  Rig rig{"W3"};
  std::vector<Route> routes;
};

// Evaluates the routes one after the other; callable from several threads at once.
void evaluate(benchmark::State& state, const OperatorPolicy& policy);

}  // namespace bench
