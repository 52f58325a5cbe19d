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
//   2. A clause user stands on the queue that `queue` names: one of `list`'s queues of users, or
//      its stale queue. Both are null, or the list is alive.
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
struct ListDirectory;
struct NamedHead;
struct UserQueue;
}  // namespace pol

// What a sequence embeds for a clause that names a list.
struct t_pol_clause_user {
  pol::NamedHead* list;
  pol::UserQueue* queue;
  pol::TailLink<t_pol_clause_user> link;
  t_pol_block* block;  // whose users are told
  t_pol_entry* entry;
};

namespace pol {

// What is known of an object's record in the XML cache, until any record goes
// (t_pol_ctx::xml_generation).
struct XmlRef {
  const t_pol_xml_config* config;
  uint64_t generation;
};

struct UserQueue : TailQueue<t_pol_clause_user, &t_pol_clause_user::link> {};

struct NamedHead {
  char name[POL_LIST_NAME_SIZE];
  avl_node link;
  // On purpose: a clause whose new list could not be had still refers to the one that it left,
  // without being its user, until one of the two goes.
  UserQueue stale;
  XmlRef xml;
  ListDirectory* directory;  // that has its elements; null: none
  TailLink<NamedHead> enrolled;
  bool in_document;  // only while a document is put together: it has the object's text
  // Frees the list unless elements or users hold it.
  void (*free_if_unused)(t_pol_ctx* ctx, NamedHead* list);
};

inline int named_compare(const void* key, const void* node) {
  return sign(
      strncmp(static_cast<const char*>(key), static_cast<const char*>(node), POL_LIST_NAME_SIZE));
}

// Changes come list by list: the list that was asked for last is known without a descent. Zeroed
// memory before it is created.
template <class List>
class NamedTree : public AvlTree<List> {
 public:
  // Null when there is none; then `where` is where it would stand, and `key` its name as lists keep
  // it.
  List* find_named(const char* name, char (&key)[POL_LIST_NAME_SIZE], avl_index* where) {
    if (last_ != nullptr && strncmp(name, last_->head.name, POL_LIST_NAME_SIZE - 1) == 0) {
      return last_;
    }
    copy_name(key, name);
    List* list = this->find(key, where);
    if (list != nullptr) last_ = list;
    return list;
  }
  void remove(List* list) {
    if (last_ == list) last_ = nullptr;
    AvlTree<List>::remove(list);
  }
  List* drain(void** cookie) {
    last_ = nullptr;
    return AvlTree<List>::drain(cookie);
  }

 private:
  List* last_;
};

template <class List>
uint32_t named_init(t_pol_ctx* ctx, NamedTree<List> t_pol_ctx::*tree) {
  if (ctx == nullptr) return POL_ENOCTX;
  (ctx->*tree).create(named_compare, offsetof(List, head.link));
  return POL_OK;
}

// `release` empties and frees a list that has been taken out of its tree.
template <class List>
uint32_t named_deinit(t_pol_ctx* ctx, NamedTree<List> t_pol_ctx::*tree,
                      void (*release)(t_pol_ctx* ctx, List* list)) {
  if (ctx == nullptr) return POL_ENOCTX;
  void* cookie = nullptr;
  while (List* list = (ctx->*tree).drain(&cookie)) release(ctx, list);
  (ctx->*tree).destroy();
  return POL_OK;
}

template <class List>
List* named_find(NamedTree<List>& tree, const char* name) {
  char key[POL_LIST_NAME_SIZE];
  return tree.find_named(name, key, nullptr);
}

// For a host's arguments: null without a context or a name.
template <class List>
List* named_find(t_pol_ctx* ctx, NamedTree<List> t_pol_ctx::*tree, const char* name) {
  return ctx != nullptr && name != nullptr ? named_find(ctx->*tree, name) : nullptr;
}

// Null when memory runs out; then nothing was inserted. `created` is set to 1 only when it was.
template <class List>
[[nodiscard]] List* named_find_or_create(NamedTree<List>& tree, const char* name, MemType type,
                                         void (*free_if_unused)(t_pol_ctx*, NamedHead*),
                                         uint8_t* created) {
  static_assert(offsetof(List, head) == 0);
  char key[POL_LIST_NAME_SIZE];
  avl_index where = 0;
  List* list = tree.find_named(name, key, &where);
  if (list != nullptr) return list;
  list = alloc<List>(type);
  if (list == nullptr) return nullptr;
  memcpy(list->head.name, key, sizeof key);
  list->head.free_if_unused = free_if_unused;
  tree.insert(list, where);
  *created = 1;
  return list;
}

// Takes a list without elements out of its directory, if it is in one (lists/list_directory.h).
void directory_forget(NamedHead* list);

// Frees the node's memory once it is out of its tree. Clauses that still refer to it forget it.
template <class List>
void named_release(List* list, MemType type) {
  directory_forget(&list->head);
  while (t_pol_clause_user* user = list->head.stale.pop_front()) {
    user->list = nullptr;
    user->queue = nullptr;
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

inline bool is_stale(const t_pol_clause_user& user) {
  return user.list != nullptr && user.queue == &user.list->stale;
}

// Notes that a sequence of the policy, or its match clauses, change: its index may name lists that
// they leave (core/pol_policy_index.h). `grown` came or changed, but left no list; null for all
// else.
void policy_index_stale(t_pol_ctx* ctx, t_pol_block* block, const t_pol_entry* grown);

// A user of one list, in one role, at a time: it leaves any other.
inline void user_add(t_pol_ctx* ctx, NamedHead* list, UserQueue& queue, t_pol_clause_user* user) {
  if (user->queue == &queue) return;
  const bool leaves = user->list != nullptr || user->queue != nullptr;
  policy_index_stale(ctx, user->block, leaves ? nullptr : user->entry);
  NamedHead* left = user->list != list && !is_stale(*user) ? user->list : nullptr;
  if (user->queue != nullptr) user->queue->remove(user);
  queue.push_back(user);
  user->list = list;
  user->queue = &queue;
  if (left != nullptr) left->free_if_unused(ctx, left);
}

enum class Leaving { kForgets, kStaysStale };

// Takes a user, be it a stale one, off its list, which goes if nothing else holds it.
// REQUIRES: it is on one.
inline void user_leave(t_pol_ctx* ctx, t_pol_clause_user* user, Leaving leaving) {
  NamedHead* list = user->list;
  policy_index_stale(ctx, user->block, nullptr);
  user->queue->remove(user);
  if (leaving == Leaving::kStaysStale) {
    list->stale.push_back(user);
    user->queue = &list->stale;
  } else {
    user->list = nullptr;
    user->queue = nullptr;
  }
  list->free_if_unused(ctx, list);
}

// For a host's arguments; a user that is not on that queue does nothing.
inline uint32_t user_remove(t_pol_ctx* ctx, NamedHead* list, const UserQueue& queue,
                            t_pol_clause_user* user) {
  if (user == nullptr) return POL_EINVAL;
  if (ctx == nullptr) return POL_ENOCTX;
  if (user->list != list || (user->queue != &queue && !is_stale(*user))) return POL_EINVAL;
  user_leave(ctx, user, Leaving::kForgets);
  return POL_OK;
}

template <class List>
uint32_t user_remove(t_pol_ctx* ctx, List* list, UserQueue List::*queue, t_pol_clause_user* user) {
  if (list == nullptr) return POL_EINVAL;
  return user_remove(ctx, &list->head, list->*queue, user);
}

// Queues the users of every policy that owns one of these clauses, in order.
inline void mark_blocks(t_pol_ctx* ctx, const UserQueue& users) {
  for (t_pol_clause_user& user : users) pol_block_users_add_to_chg_list(ctx, user.block);
}

}  // namespace pol
