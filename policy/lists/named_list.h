// SPDX-License-Identifier: Apache-2.0
//
// named_list.h - what all named lists share: the life of a node by its name, and its users.
//
// A node is made by its first mention, be it an element or a user, and freed as soon as it has
// neither. What a change does, and in which order, is each family's own.
//
// Invariants
//   1. `head` is a list node's first member and `name` the head's, so that a pointer to a node is a
//      pointer to its name; trees compare keys and nodes alike.
//   2. A clause user is on the queue of users that it registered on, or (stale) on the list's stale
//      queue, or on none; `list` is null or alive in each case.
#pragma once

#include <cstddef>
#include <cstring>

#include "base/avl_tree.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "base/tail_queue.h"
#include "policy/pol_types.h"
#include "policy/pol_user.h"

namespace pol {
struct NamedHead;
}

// What a sequence embeds for a clause that names a list.
struct t_pol_clause_user {
  pol::TailLink<t_pol_clause_user> link;
  t_pol_block* block;  // whose users are told
  t_pol_entry* entry;
  pol::NamedHead* list;
  bool keep_reference;  // the clause is about to name another list: leaving this one makes it stale
  // On purpose: when that other list cannot be made, the clause still refers to this one without
  // being its user, until one of the two goes.
  bool stale;
};

namespace pol {

using UserQueue = TailQueue<t_pol_clause_user, &t_pol_clause_user::link>;

struct NamedHead {
  char name[POL_LIST_NAME_SIZE];
  avl_node link;
  UserQueue stale;
  uint32_t enrolled;  // generation of the family's directory that has its elements; 0: none
};

inline int named_compare(const void* key, const void* node) {
  return sign(
      strncmp(static_cast<const char*>(key), static_cast<const char*>(node), POL_LIST_NAME_SIZE));
}

template <class List>
using NamedTree = AvlTree<List>;

template <class List>
List* named_find(const NamedTree<List>& tree, const char* name) {
  char key[POL_LIST_NAME_SIZE];
  copy_name(key, name);
  return tree.find(key);
}

// Null when memory runs out; then nothing was inserted. `created` is set to 1 only when it was.
template <class List>
[[nodiscard]] List* named_find_or_create(NamedTree<List>& tree, const char* name, MemType type,
                                         uint8_t* created) {
  static_assert(offsetof(List, head) == 0);
  char key[POL_LIST_NAME_SIZE];
  copy_name(key, name);
  avl_index where = 0;
  List* list = tree.find(key, &where);
  if (list != nullptr) return list;
  list = alloc<List>(type);
  if (list == nullptr) return nullptr;
  memcpy(list->head.name, key, sizeof key);
  tree.insert(list, where);
  *created = 1;
  return list;
}

// Frees the node's memory once it is out of its tree. Clauses that still refer to it forget it.
template <class List>
void named_release(List* list, MemType type) {
  while (t_pol_clause_user* user = list->head.stale.pop_front()) {
    user->list = nullptr;
    user->stale = false;
  }
  pol_free(list, type);
}

template <class List>
void named_remove(NamedTree<List>& tree, List* list, MemType type) {
  tree.remove(list);
  named_release(list, type);
}

template <class List>
List* list_of(const t_pol_clause_user& user) {
  return reinterpret_cast<List*>(user.list);
}

inline void user_add(NamedHead* list, UserQueue& queue, t_pol_clause_user* user) {
  if (user->stale) user->list->stale.remove(user);
  user->stale = false;
  queue.push_back(user);
  user->list = list;
}

// Takes the user off; the caller then frees the list if nothing holds it any more.
inline void user_remove(NamedHead* list, UserQueue& queue, t_pol_clause_user* user) {
  if (user->stale) {
    list->stale.remove(user);
  } else if (UserQueue::linked(user)) {
    queue.remove(user);
  }
  user->stale = user->keep_reference;
  if (user->stale) {
    list->stale.push_back(user);
  } else {
    user->list = nullptr;
  }
}

// Queues the users of every policy that owns one of these clauses, in order.
inline void mark_blocks(t_pol_ctx* ctx, const UserQueue& users) {
  for (t_pol_clause_user& user : users) pol_block_users_add_to_chg_list(ctx, user.block);
}

}  // namespace pol
