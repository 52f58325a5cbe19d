/* SPDX-License-Identifier: Apache-2.0
 *
 * attribute_words.h - the configuration's words for what routes and TLOCs carry as numbers.
 */
#ifndef TOOL_ATTRIBUTE_WORDS_H
#define TOOL_ATTRIBUTE_WORDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace polctl {

enum class Vocabulary { kColor, kEncap, kService, kCarrier };

/* The word; "" for a number without one. */
const char* word_of(Vocabulary words, uint32_t number);
/* False when it is none of them. */
bool number_of(Vocabulary words, std::string_view word, uint32_t* number);
/* All, in the order of their numbers. */
std::vector<std::string> words_in(Vocabulary words);
/* What a member's value is called: "color". */
const char* vocabulary_name(Vocabulary words);

/* The word in quotes, or the number: a JSON value that is read again. */
std::string json_word(Vocabulary words, uint32_t number);

/* Where a route comes from: a word stands for protocol and sub-type. */
struct Origin {
  uint8_t protocol;
  uint8_t subtype;
};
const char* origin_word(Origin origin);
bool origin_of(std::string_view word, Origin* origin);
std::vector<std::string> origin_words();

}  // namespace polctl

#endif
