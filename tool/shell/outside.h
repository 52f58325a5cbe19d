/* SPDX-License-Identifier: Apache-2.0
 *
 * outside.h - the tool's other commands from within the shell, each in a process of its own.
 */
#ifndef TOOL_SHELL_OUTSIDE_H
#define TOOL_SHELL_OUTSIDE_H

#include <string>
#include <vector>

namespace polctl {

/* Runs this program with the words and waits; its exit status, 128 and more for a signal. Standard
 * input is the shell's own, or nothing where the shell reads its commands from there. With `output` what
 * it prints goes there. */
int run_outside(const std::vector<std::string>& words, bool reads_input,
                std::string* output = nullptr);

}  // namespace polctl

#endif
