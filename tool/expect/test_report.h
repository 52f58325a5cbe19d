/* SPDX-License-Identifier: Apache-2.0
 *
 * test_report.h - what came of tests, for people and for the programs that run them.
 */
#ifndef TOOL_EXPECT_TEST_REPORT_H
#define TOOL_EXPECT_TEST_REPORT_H

#include <string>

#include "host/output.h"
#include "test_runner.h"

namespace polctl {

/* A line a failure, and the counts. `explain`: below it what was tried, sequence by sequence. */
void write_test_text(const TestRun& run, bool explain, Output* out);
/* An object a test, and one for the counts. */
void write_test_json(const TestRun& run, Output* out);
/* The XML that build servers read: a suite a file. */
void write_test_junit(const TestRun& run, Output* out);
/* The Test Anything Protocol, version 13. */
void write_test_tap(const TestRun& run, Output* out);

}  // namespace polctl

#endif
