// SPDX-License-Identifier: Apache-2.0
//
// golden.h - texts to the byte. With UPDATE_GOLDENS in the environment they are written, to be
// looked at and committed.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

std::string read_golden(const std::string& name);
void expect_golden(const std::string& name, const std::string& text);

// The parts of a golden's input, one after a blank line.
template <class Visit>
void for_each_part(const std::string& name, Visit visit) {
  const std::string text = read_golden(name);
  ASSERT_FALSE(text.empty()) << name;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find("\n\n", at), text.size() - 1);
    visit(text.substr(at, end + 1 - at));
    at = end + 2;
  }
}
