// SPDX-License-Identifier: Apache-2.0
#include <regex>

#include "support/policy_fixture.h"

std::string shown(t_pol_entry* entry) {
  if (entry == nullptr) return "none";
  std::string text =
      PolicyTest::printed([entry](t_cli_user_ctx* cli) { pol_dump_entry(entry, cli); });
  static const std::regex kVaries("sequence: [0-9]+|\\[[^\\]]* \\]|\\(0x[^)]+\\)");
  static const std::regex kBlanks("\\s+");
  text = std::regex_replace(std::regex_replace(text, kVaries, ""), kBlanks, " ");
  return text.substr(1, text.find_last_not_of(' '));
}
