/* SPDX-License-Identifier: Apache-2.0
 *
 * policy_text.h - lines of a policy file as set-lines, and back.
 *
 * The two languages overlap: site and prefix lists, control policies with those clauses that both have.
 * What the other cannot say exactly is refused, never approximated.
 */
#ifndef TOOL_CONVERT_POLICY_TEXT_H
#define TOOL_CONVERT_POLICY_TEXT_H

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/input_error.h"

namespace polctl {

/* Policy files line by line, in order. */
class FromPolicyText {
 public:
  /* The set-lines for a line; none for a comment. Throws LineFaultError for what configuration cannot
   * say. REQUIRES: a line that a check of the file finds no error in. */
  std::vector<std::string> set_lines(std::string_view line);

 private:
  /* Of sequences, by policy and number: a policy file forgets the clauses when it changes. */
  std::map<std::pair<std::string, std::string>, std::string> match_types_;
};

/* The line of a policy file for the words of a set-line behind "set". A TLOC takes two set-lines, its
 * address and its color: `next` has the words of the one that follows, and `taken` says whether it was
 * used. Throws LineFaultError, without a column, for what a policy file cannot say. */
std::string policy_line(const std::vector<std::string>& words, const std::vector<std::string>& next,
                        bool* taken);

}  // namespace polctl

#endif
