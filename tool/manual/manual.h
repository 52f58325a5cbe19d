/* SPDX-License-Identifier: Apache-2.0
 *
 * manual.h - what is made from the command table for people's shells and manuals: completion for bash
 * and zsh, and a manual page for each command. A new option is in all of them by being in the table.
 */
#ifndef TOOL_MANUAL_MANUAL_H
#define TOOL_MANUAL_MANUAL_H

#include <string>
#include <vector>

#include "tool/command_line.h"

namespace polctl {

/* The script that a shell reads, "bash" or "zsh"; "" for another. */
std::string completion_script(const std::vector<CommandRow>& commands, const std::string& shell);

/* The manual page of a command, of polctl itself for "polctl", as scdoc reads it; "" for another. */
std::string manual_page(const std::vector<CommandRow>& commands, const std::string& name);

}  // namespace polctl

#endif
