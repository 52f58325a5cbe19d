// SPDX-License-Identifier: Apache-2.0
#include "support/golden.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/paths.h"

namespace {

std::string path(const std::string& name) { return std::string(kGoldenDir) + "/" + name; }

}  // namespace

std::string read_golden(const std::string& name) {
  std::ostringstream text;
  text << std::ifstream(path(name)).rdbuf();
  return text.str();
}

void expect_golden(const std::string& name, const std::string& text) {
  if (getenv("UPDATE_GOLDENS") != nullptr) std::ofstream(path(name)) << text;
  EXPECT_EQ(text, read_golden(name));
}
