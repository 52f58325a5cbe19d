/* SPDX-License-Identifier: Apache-2.0
 *
 * change_names.h - which entries a batch of changes touched, in a line each.
 */
#ifndef TOOL_WATCHING_CHANGE_NAMES_H
#define TOOL_WATCHING_CHANGE_NAMES_H

#include <string>
#include <vector>

#include "yarrow/yarrow_changes.h"

namespace polctl {

inline constexpr size_t kNamesKept = 100;

/* "changed control-policy branch": the lists, objects and policies in the order of the batch, each
 * once; beyond kNamesKept a last line says how many more there are. */
std::vector<std::string> changed_names(const t_yarrow_batch* batch);

}  // namespace polctl

#endif
