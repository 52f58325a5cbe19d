// SPDX-License-Identifier: Apache-2.0
// Runs the workloads, several times each in an order without a pattern, and prints their medians as
// one table. Takes the flags of the benchmark library, such as --benchmark_filter=W1 and
// --benchmark_out=FILE.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "table.h"

namespace bench {
void register_prefix_lists();
void register_sequences();
void register_loads();
void register_forwarding();
void register_threads();
}  // namespace bench

int main(int argc, char** argv) {
  // Given first, so that the caller's flags win.
  char repetitions[] = "--benchmark_repetitions=7";
  char min_time[] = "--benchmark_min_time=0.05";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> arguments = {argv[0], repetitions, min_time, interleave};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  bench::register_prefix_lists();
  bench::register_sequences();
  bench::register_loads();
  bench::register_forwarding();
  bench::register_threads();
  bench::Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  int missed = bench::print_table(collector.figures());
  printf("\nMedians of 7 runs; times move with the machine, so read them against the floor.\n");
  if (missed > 0) printf("%d of the bars missed.\n", missed);
  return collector.failed() ? 1 : 0;
}
