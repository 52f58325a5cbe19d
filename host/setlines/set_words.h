/* SPDX-License-Identifier: Apache-2.0
 *
 * set_words.h - configuration in words, "policy control-policy branch sequence 10 action accept": what
 * the words of a line mean by the schema.
 *
 * Names of nodes are followed by their keys or their value, whoever holds them by what is in him. A
 * leaf's value may be followed by another leaf of the same entry or container. Words are separated by
 * blanks and tabs; one that holds any, or a quote, a backslash or #, or is empty, stands in double
 * quotes, in which \" \\ \n \r and \t are a quote, a backslash and control characters.
 */
#ifndef HOST_SETLINES_SET_WORDS_H
#define HOST_SETLINES_SET_WORDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/schema_tree.h"
#include "host/input_error.h"

namespace polctl {

struct SetWord {
  std::string text;
  uint32_t column = 1; /* from 1, in bytes */
  bool quoted = false;
};

/* The words of a line up to an unquoted # at a word's begin. Throws LineFaultError: a quote that is
 * not closed. */
std::vector<SetWord> split_words(std::string_view line);

/* The word as it is to be written. */
std::string quoted_word(std::string_view text);

/* One step of a path: a node and, of a list's entry, the keys. A list without keys is all of it. */
struct SetStep {
  const agent::TreeNode* node = nullptr;
  std::vector<SetWord> keys;
  uint32_t column = 1; /* of the node's name */
};
using SetPath = std::vector<SetStep>;

/* What a line is about: a node, and of a leaf the value. */
struct SetTarget {
  SetPath path;
  std::optional<SetWord> value;
};

/* The schema. Throws InputError when it cannot be had. */
const agent::TreeNode& config_schema();

enum class SetUse {
  kSet, /* every key and value is there */
  kName, /* names a node: a leaf is without its value (an item of a leaf-list may have it), and a list
             may be meant as a whole */
};

/* Where the words, from `first` on, lead from `from`. Of kSet as many targets as there are leaves, or
 * the entry or container at the end; of kName exactly one, whose path is empty for no words at all.
 * Throws LineFaultError. */
std::vector<SetTarget> resolve_words(const SetPath& from, const std::vector<SetWord>& words,
                                     size_t first, SetUse use);

/* "/policy/lists/site-list{A}", as the agent takes it. */
std::string agent_path(const SetPath& path);

/* The words that lead there. */
std::string words_of(const SetPath& path);

}  // namespace polctl

#endif
