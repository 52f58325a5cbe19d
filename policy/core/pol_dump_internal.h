// SPDX-License-Identifier: Apache-2.0
//
// pol_dump_internal.h - what the dumps of several modules print alike.
#pragma once

#include "base/pol_dump_title.h"
#include "core/pol_block_internal.h"
#include "lists/named_list.h"
#include "policy/pol_dump.h"

namespace pol {

// The policies that use a list through these clauses, one line a clause.
inline void dump_list_users(t_cli_user_ctx* cli, const UserQueue& users) {
  for (const t_pol_clause_user& user : users)
    maapi_cli_printf(cli, "\n  User: %s", user.block->name);
}

}  // namespace pol
