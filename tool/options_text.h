/* SPDX-License-Identifier: Apache-2.0
 *
 * options_text.h - a command's options in a file (platform/service/options_file.h).
 */
#ifndef TOOL_OPTIONS_TEXT_H
#define TOOL_OPTIONS_TEXT_H

#include <functional>

#include "command_line.h"

namespace polctl {

/* What a file says and the command line, `given`, does not, as words of the command. `alone` throws
 * InputError for a word that is wrong by itself; it is told with its file and line. */
std::vector<std::string> words_of_options_file(
    const std::string& file, const CommandRow& command, const GivenOptions& given,
    const std::function<void(const std::string&)>& alone);

/* The file that says what `given` does; what is not given stands in it as a comment. */
std::string options_file_text(const CommandRow& command, const GivenOptions& given);

}  // namespace polctl

#endif
