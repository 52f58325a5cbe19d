// SPDX-License-Identifier: Apache-2.0
//
// table.h - the figures of one run, gathered by name and printed as one table.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>

namespace bench {

// By benchmark name: the median over the repetitions, in nanoseconds, or bytes where that is what
// the benchmark counts. By name and "/cpu": the processor time.
using Figures = std::map<std::string, double>;

class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;

  const Figures& figures() const { return figures_; }
  bool failed() const { return failed_; }

 private:
  Figures figures_;
  bool failed_ = false;
};

// Leaves out what was not run. Returns how many figures lie above their bar.
int print_table(const Figures& figures);

}  // namespace bench
