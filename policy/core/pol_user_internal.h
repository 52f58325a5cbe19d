// SPDX-License-Identifier: Apache-2.0
//
// pol_user_internal.h - registered users.
#pragma once

#include "base/avl_tree.h"
#include "base/tail_queue.h"
#include "policy/pol_user.h"

enum pol_user_flag : uint8_t { POL_USER_QUEUED = 0x1 };

struct t_pol_user {
  uint32_t kind;  // first: a handle whose first word is 0 is none
  uint32_t direction;
  char name[POL_NAME_SIZE];
  avl_node link;
  uint8_t flags;
  t_pol_block* block;  // null once the policy was deleted
  pol::TailLink<t_pol_user> block_link;
  uint64_t user_arg;
  t_pol_change_cb change;
  t_pol_resolve_cb resolve;
  uint64_t reserved;
  pol::TailLink<t_pol_user> change_link;
  uint64_t batch;  // the notification pass during which it was queued
};

namespace pol {

using BlockUsers = TailQueue<t_pol_user, &t_pol_user::block_link>;
using ChangeList = TailQueue<t_pol_user, &t_pol_user::change_link>;

}  // namespace pol
