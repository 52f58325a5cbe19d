/* SPDX-License-Identifier: Apache-2.0
 *
 * test_runner.h - asks policies what tests want to know.
 */
#ifndef TOOL_EXPECT_TEST_RUNNER_H
#define TOOL_EXPECT_TEST_RUNNER_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "coverage.h"
#include "never.h"
#include "policy/pol_exec.h"
#include "test_result.h"

namespace polctl {

/* What tests did. */
struct TestRun {
  std::vector<TestResult> results;
  size_t failed = 0;
};

class TestRunner {
 public:
  /* `direction` is of tests that say none; NONE: inbound. `bounds` are of each statement about all routes.
   * `coverage` may be null. */
  TestRunner(uint32_t direction, const Bounds& bounds, Coverage* coverage);
  ~TestRunner();
  TestRunner(const TestRunner&) = delete;
  TestRunner& operator=(const TestRunner&) = delete;

  /* Runs all tests of a file. Throws InputError, be it at the last line. */
  void run(TestFile* file, TestRun* run);
  /* Asks every route policy about routes that nothing is expected of, for the coverage. */
  void ask(RouteReader* routes);

 private:
  struct Question;

  t_pol_user* user_of(const std::string& policy, uint32_t kind, uint32_t direction);
  void judge(const TestCase& test, uint64_t index, t_pol_user* user, TestResult* result);

  void prove(const TestCase& test, const TestFile& file, t_pol_user* user, TestResult* result);
  void explain(t_pol_user* user, Verdict* verdict, TestResult* result);

  uint32_t direction_;
  Bounds bounds_;
  std::optional<NeverProver> prover_; /* made when it is needed */
  Coverage* coverage_;
  std::map<std::tuple<std::string, uint32_t, uint32_t>, t_pol_user*> users_;
  std::unique_ptr<Question> question_;
};

}  // namespace polctl

#endif
