// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/change_names.h"

#include <fmt/format.h>

#include <string_view>

#include "host/config_mirror.h"

namespace polctl {

namespace {

const char* op_word(const t_yarrow_change& change) {
  if (change.level != 1) return "changed";
  return change.op == YARROW_CREATED ? "new" : change.op == YARROW_DELETED ? "deleted" : "changed";
}

// "/policy/lists/site-list/site" is told as its first list: "site-list".
std::string_view list_of(const t_yarrow_change& change) {
  std::string_view path = change.path;
  for (std::string_view prefix : {"/policy/lists/", "/policy/"}) {
    if (!path.starts_with(prefix)) continue;
    path.remove_prefix(prefix.size());
    break;
  }
  return path.substr(0, path.find('/'));
}

}  // namespace

std::vector<std::string> changed_names(const t_yarrow_batch* batch) {
  std::vector<std::string> names;
  std::string last;
  size_t more = 0;
  for (uint32_t i = 0; i < yarrow_batch_count(batch); ++i) {
    const t_yarrow_change& change = *yarrow_batch_change(batch, i);
    std::string name(list_of(change));
    bool named = change.key_count > 0 && change.keys[0].type == C_BUF;
    if (named) name += " " + text_key(change, 0);
    // What an entry holds follows it.
    if (name == last) continue;
    last = name;
    if (names.size() < kNamesKept) {
      names.push_back(fmt::format("{} {}", op_word(change), name));
    } else {
      ++more;
    }
  }
  if (more > 0) names.push_back(fmt::format("{} more", more));
  return names;
}

}  // namespace polctl
