// SPDX-License-Identifier: Apache-2.0
#include "support/script.h"

namespace {

class ScriptsTest : public ScriptTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ScriptsTest, MatchesItsGolden) { run(std::string("calls/") + GetParam()); }

INSTANTIATE_TEST_SUITE_P(Calls, ScriptsTest,
                         ::testing::Values("reports", "clauses", "policies", "labels", "graph",
                                           "lists", "queries"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
