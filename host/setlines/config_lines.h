/* SPDX-License-Identifier: Apache-2.0
 *
 * config_lines.h - configuration as an agent saves it, line by line for people: as set-lines, as a tree,
 * and what differs between two.
 */
#ifndef HOST_SETLINES_CONFIG_LINES_H
#define HOST_SETLINES_CONFIG_LINES_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/source_file.h"

namespace polctl {

/* A node with its keys or value. Parents stand before what they hold. */
struct ConfigLine {
  uint32_t depth = 0;
  std::string text;
};
using ConfigLines = std::vector<ConfigLine>;

/* From XML in the agent's envelope, or none for "". Nodes that the schema does not know are passed over.
 * Throws InputError for what is no XML. */
ConfigLines config_lines(const std::string& xml);

/* A line for each leaf, and for each entry that holds nothing. */
std::vector<std::string> set_lines(const ConfigLines& lines);

/* Two blanks a level. */
std::vector<std::string> tree_lines(const ConfigLines& lines);

/* What turns `before` into `after`: "- set ..." and "+ set ...". */
std::vector<std::string> set_difference(const ConfigLines& before, const ConfigLines& after);

/* The same as a tree, with what is around it after two blanks. */
std::vector<std::string> tree_difference(const ConfigLines& before, const ConfigLines& after);

/* The configuration as JSON (RFC 7951), and a file of such as XML. Throw InputError. */
std::string config_as_json(const std::string& xml);
std::string config_from_json(const SourceFile& file);

}  // namespace polctl

#endif
