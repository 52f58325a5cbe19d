// SPDX-License-Identifier: Apache-2.0
//
// pol_dump_internal.h - what the dumps of several modules print alike.
#pragma once

#include "base/pol_dump_title.h"
#include "core/pol_context_internal.h"
#include "lists/named_list.h"
#include "policy/pol_dump.h"

namespace pol {

// The policies that use a list through these clauses, one line a clause.
inline void dump_list_users(t_cli_user_ctx* cli, const UserQueue& users) {
  for (const t_pol_clause_user& user : users)
    maapi_cli_printf(cli, "\n  User: %s", user.block->name);
}

// Every list of a family; the body of its command.
template <class List>
int dump_lists(t_cli_user_ctx* cli, const char* title, NamedTree<List> t_pol_ctx::*tree,
               void (*dump)(List* list, t_cli_user_ctx* cli)) {
  if (g_pol_ctx_p == nullptr) return 0;
  dump_title(cli, title);
  const NamedTree<List>& lists = g_pol_ctx_p->*tree;
  for (List* list = lists.first(); list != nullptr; list = lists.next(list)) dump(list, cli);
  return 0;
}

}  // namespace pol
