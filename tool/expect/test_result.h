/* SPDX-License-Identifier: Apache-2.0
 *
 * test_result.h - what came of a test: where the answer is not what was expected, and why it came so.
 */
#ifndef TOOL_EXPECT_TEST_RESULT_H
#define TOOL_EXPECT_TEST_RESULT_H

#include <cstdint>
#include <string>
#include <vector>

#include "test_file.h"
#include "tool/verdict_writer.h"

namespace polctl {

struct Shown {
  std::string json;
  std::string text; /* for people */
};

/* One thing that was looked at and is otherwise. */
struct Mismatch {
  const char* what; /* "action", "tag", ... */
  Shown expected;
  Shown came;
};

struct TestResult {
  std::string file;
  uint64_t line = 0;
  std::string title; /* the test's name, or its policy and its route */
  std::string policy;
  std::vector<Mismatch> mismatches; /* empty: it passed */
  /* Of one that failed. */
  std::string reason;      /* in a line */
  std::string explanation; /* as `eval --explain` writes it */
  std::string answer;      /* the object that `eval --json` writes, on one line */

  bool passed() const { return mismatches.empty(); }
};

std::vector<Mismatch> mismatches_of(const Expected& expected, const Verdict& verdict);

/* The verdict has its steps. `has_expected`: the policy has the sequence that was expected. */
std::string reason_of(const Expected& expected, bool has_expected, const Verdict& verdict);

/* "expected action accept, sequence 60; came action reject, sequence 30: tag is 666". */
std::string failure_text(const TestResult& result);

}  // namespace polctl

#endif
