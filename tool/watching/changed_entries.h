/* SPDX-License-Identifier: Apache-2.0
 *
 * changed_entries.h - which lists, objects and policies a batch of changes touched.
 */
#ifndef TOOL_WATCHING_CHANGED_ENTRIES_H
#define TOOL_WATCHING_CHANGED_ENTRIES_H

#include <string>
#include <vector>

#include "yarrow/yarrow_changes.h"

namespace polctl {

struct ChangedEntry {
  std::string path; /* as the agent takes it: "/policy/lists/site-list{hub}" */
  std::string name; /* "site-list hub" */
  const char* what; /* "new", "deleted", "changed" */
};

/* In the order of the batch, each once. */
std::vector<ChangedEntry> changed_entries(const t_yarrow_batch* batch);

}  // namespace polctl

#endif
