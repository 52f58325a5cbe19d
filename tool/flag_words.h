/* SPDX-License-Identifier: Apache-2.0
 *
 * flag_words.h - the library's words for its flag bits, in the order in which its dumps print them.
 */
#ifndef TOOL_FLAG_WORDS_H
#define TOOL_FLAG_WORDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace polctl {

/* Of a query's `matched` and `applied`. A VPN set by id or by list is one bit, "VPN-ID". */
void matched_words(uint32_t matched, std::vector<const char*>* words);
void applied_words(uint32_t applied, std::vector<const char*>* words);

/* The configuration's words for a sequence's clauses that name no list; appended. */
void single_match_words(uint32_t match_flags, std::vector<std::string>* words);
void single_set_words(uint32_t set_flags, std::vector<std::string>* words);

/* Of the one clause at which a sequence failed; 0 is the match type, "TYPE". */
const char* clause_word(uint32_t clause);

}  // namespace polctl

#endif
