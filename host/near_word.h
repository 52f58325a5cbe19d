/* SPDX-License-Identifier: Apache-2.0
 *
 * near_word.h - what somebody may have meant who mistyped a word.
 */
#ifndef HOST_NEAR_WORD_H
#define HOST_NEAR_WORD_H

#include <string>
#include <string_view>
#include <vector>

namespace polctl {

/* The known words that differ from `word` in at most a third of its characters (at least one, at
 * most four), the nearest first. A word too long to be mistyped has none. */
std::vector<std::string> near_words(std::string_view word, const std::vector<std::string>& known);

}  // namespace polctl
#endif
