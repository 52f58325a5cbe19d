/* SPDX-License-Identifier: Apache-2.0
 *
 * answers.h - what commands print, as texts.
 */
#ifndef TOOL_WATCHING_ANSWERS_H
#define TOOL_WATCHING_ANSWERS_H

#include <functional>
#include <string>

#include "host/output.h"

namespace polctl {

/* What is written to the output. Throws InputError as `write` does, and when it is too much. */
std::string printed(const std::function<void(Output*)>& write);

/* JSON objects, one a line, as an array. */
std::string as_array(const std::string& lines);

}  // namespace polctl

#endif
