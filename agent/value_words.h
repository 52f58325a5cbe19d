// SPDX-License-Identifier: Apache-2.0
//
// What a leaf takes, and what is wrong with a value that it does not, in an operator's words.
#ifndef AGENT_VALUE_WORDS_H
#define AGENT_VALUE_WORDS_H

#include <string>
#include <string_view>
#include <vector>

#include "agent/schema.h"

namespace agent {

// `"99" is out of range (expected a number from 0 to 32)`. REQUIRES: a leaf that refuses the text.
std::string refused_value(const SchemaNode& leaf, std::string_view text);

// "a number from 0 to 32". REQUIRES: a leaf.
std::string expected_value(const SchemaNode& leaf);

// All that a leaf takes, where these are words. REQUIRES: a leaf.
std::vector<std::string> value_choices(const SchemaNode& leaf);

// "no such node (expected one of: site-list, ...)"
std::string unknown_child(const SchemaNode& parent);

}  // namespace agent
#endif
