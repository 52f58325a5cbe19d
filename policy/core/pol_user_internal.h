// SPDX-License-Identifier: Apache-2.0
//
// pol_user_internal.h - registered users.
#pragma once

#include "base/avl_tree.h"
#include "base/tail_queue.h"
#include "policy/pol_user.h"

enum pol_user_flag : uint8_t { POL_USER_QUEUED = 0x1 };

// Invariants
//   1. A user with a policy stands among that policy's users, and either on the change list or
//      among those of the policy that are not queued.
//   2. `place` grows along a policy's users.
struct t_pol_user {
  uint32_t kind;  // first: a handle whose first word is 0 is none
  uint32_t direction;
  char name[POL_NAME_SIZE];
  avl_node link;
  uint8_t flags;
  uint8_t in_tree;     // of users
  t_pol_block* block;  // null once the policy was deleted
  uint64_t place;      // the how manieth user that was given a policy
  avl_node unqueued_link;
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

// The users of a policy that are not on the change list, in the order of its users.
class UnqueuedUsers {
 public:
  void create();
  void destroy() { by_place_.destroy(); }
  // Takes the first out; all others are taken before any is added or removed.
  t_pol_user* drain() {
    void* cookie = nullptr;
    return by_place_.drain(&cookie);
  }
  void add(t_pol_user* user);
  void remove(t_pol_user* user) { by_place_.remove(user); }

 private:
  AvlTree<t_pol_user> by_place_;
};

// Takes every user off a policy that goes, without queueing any.
void block_users_forget(t_pol_ctx* ctx, t_pol_block* block);

}  // namespace pol
