// SPDX-License-Identifier: Apache-2.0
//
// Each <case>.in holds polctl's arguments on its first line and its standard input below; <case>.ok
// what it must say, pointers masked. UPDATE_GOLDENS=1 writes what it says now: read the
// difference before committing it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "support/golden.h"
#include "support/paths.h"
#include "support/process.h"

namespace {

std::vector<std::string> case_names() {
  std::vector<std::string> names;
  for (const auto& file :
       std::filesystem::directory_iterator(std::string(kGoldenDir) + "/polctl")) {
    if (file.path().extension() == ".in") names.push_back(file.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class GoldenTest : public testing::TestWithParam<std::string> {};

TEST_P(GoldenTest, SaysTheSame) {
  const std::string base = "polctl/" + GetParam();
  const std::string content = read_golden(base + ".in");
  size_t first_end = content.find('\n');
  ASSERT_NE(first_end, std::string::npos);
  Invocation invocation;
  std::istringstream words(content.substr(0, first_end));
  for (std::string word; words >> word;) invocation.args.push_back(word);
  invocation.input = content.substr(first_end + 1);

  Outcome outcome = run_polctl(invocation);
  std::string said = outcome.out;
  if (!outcome.err.empty()) said += "--- stderr\n" + outcome.err;
  said += "--- status " + std::to_string(outcome.status) + "\n";
  // Pointers are long; flag words, which are shown in hexadecimal too, are not.
  said = std::regex_replace(said, std::regex("0x[0-9a-f]{9,}"), "PTR");
  said = std::regex_replace(said, std::regex("(Start|End): \\w{3} \\w{3} .*"), "$1: TIME");
  expect_golden(base + ".ok", said);
}

INSTANTIATE_TEST_SUITE_P(Polctl, GoldenTest, testing::ValuesIn(case_names()),
                         [](const auto& info) { return info.param; });

}  // namespace
