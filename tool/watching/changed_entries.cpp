// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/changed_entries.h"

#include <fmt/format.h>

#include <string_view>

#include "host/config_mirror.h"
#include "tool/config_findings.h"

namespace polctl {

namespace {

const char* op_word(const t_yarrow_change& change) {
  if (change.level != 1) return "changed";
  return change.op == YARROW_CREATED ? "new" : change.op == YARROW_DELETED ? "deleted" : "changed";
}

// Of "/policy/lists/site-list/site" the first list: "/policy/lists/site-list".
std::string_view entry_path(std::string_view path) {
  size_t lists = path.starts_with("/policy/lists/") ? 14 : path.starts_with("/policy/") ? 8 : 1;
  return path.substr(0, path.find('/', lists));
}

}  // namespace

std::vector<ChangedEntry> changed_entries(const t_yarrow_batch* batch) {
  std::vector<ChangedEntry> entries;
  for (uint32_t i = 0; i < yarrow_batch_count(batch); ++i) {
    const t_yarrow_change& change = *yarrow_batch_change(batch, i);
    std::string path(entry_path(change.path));
    std::string name = path.substr(path.rfind('/') + 1);
    if (change.key_count > 0 && change.keys[0].type == C_BUF) {
      name += " " + text_key(change, 0);
      path += fmt::format("{{{}}}", key_text(text_key(change, 0)));
    }
    // What an entry holds follows it.
    if (!entries.empty() && entries.back().path == path) continue;
    entries.push_back({std::move(path), std::move(name), op_word(change)});
  }
  return entries;
}

}  // namespace polctl
