// SPDX-License-Identifier: Apache-2.0
// Registered users and their notification.
//
// A change puts the users of a policy on the context's change list, at most once each; whoever ends
// a batch of changes has the list called back. A callback may do anything but destroy the context:
// unregister itself or others, change policy, ask for notification. So nothing here keeps a user
// across a callback: the batch is taken from the list's head, and the walk over a policy's users
// goes on from a place that their removal moves on. A change looks only at users that are not
// queued yet, so that many changes, and many callbacks that change their own policy, cost no walk
// over all.
#include "core/pol_user_internal.h"

#include <cstring>

#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_block_internal.h"
#include "core/pol_context_internal.h"
#include "core/pol_policy_index.h"
#include "policy/pol_block.h"

namespace {

struct UserKey {
  uint32_t kind;
  uint32_t direction;
  char name[POL_NAME_SIZE];
};
static_assert(offsetof(t_pol_user, kind) == offsetof(UserKey, kind));
static_assert(offsetof(t_pol_user, direction) == offsetof(UserKey, direction));
static_assert(offsetof(t_pol_user, name) == offsetof(UserKey, name));

int user_compare(const void* key, const void* node) {
  const auto* a = static_cast<const UserKey*>(key);
  const auto* b = static_cast<const UserKey*>(node);
  if (a->kind != b->kind) return a->kind < b->kind ? -1 : 1;
  if (a->direction != b->direction) return a->direction < b->direction ? -1 : 1;
  return pol::sign(strncmp(a->name, b->name, POL_NAME_SIZE));
}

int place_compare(const void* key, const void* node) {
  const uint64_t place = *static_cast<const uint64_t*>(key);
  const uint64_t other = static_cast<const t_pol_user*>(node)->place;
  return (place > other) - (place < other);
}

void leave_block(t_pol_ctx* ctx, t_pol_user* user) {
  if (ctx->notify_next == user) ctx->notify_next = pol::BlockUsers::next(user);
  user->block->users.remove(user);
  if ((user->flags & POL_USER_QUEUED) == 0) user->block->unqueued.remove(user);
  user->block = nullptr;
}

void queue(t_pol_ctx* ctx, t_pol_user* user) {
  ctx->change_list.push_back(user);
  user->flags |= POL_USER_QUEUED;
  user->batch = ctx->batch;
}

void unqueue(t_pol_ctx* ctx, t_pol_user* user) {
  if ((user->flags & POL_USER_QUEUED) == 0) return;
  ctx->change_list.remove(user);
  user->flags &= static_cast<uint8_t>(~POL_USER_QUEUED);
  if (user->block != nullptr) user->block->unqueued.add(user);
}

// The caller has made sure that no other callback runs.
void call_back(t_pol_ctx* ctx, t_pol_user* user) {
  unqueue(ctx, user);
  if (user->change == nullptr) return;
  ctx->flags |= POL_CTX_NOTIFYING;
  user->change(user, user->user_arg);
  ctx->flags &= ~uint32_t{POL_CTX_NOTIFYING};
}

bool may_notify(const t_pol_ctx* ctx) {
  return (ctx->flags & (POL_CTX_DESTROYING | POL_CTX_NOTIFYING)) == 0;
}

}  // namespace

namespace pol {

void UnqueuedUsers::create() {
  by_place_.create(place_compare, offsetof(t_pol_user, unqueued_link));
}

void UnqueuedUsers::add(t_pol_user* user) {
  avl_index where = 0;
  by_place_.find(&user->place, &where);
  by_place_.insert(user, where);
}

void block_users_forget(t_pol_ctx* ctx, t_pol_block* block) {
  while (t_pol_user* user = block->users.front()) {
    if (ctx->notify_next == user) ctx->notify_next = nullptr;
    leave_block(ctx, user);
  }
}

}  // namespace pol

t_pol_user* pol_register(const t_pol_registration* record) {
  if (record == nullptr || g_pol_ctx_p == nullptr) return nullptr;
  return pol_user_find_or_create(g_pol_ctx_p, record->user_name, record->policy_name, record->kind,
                                 record->direction, record->change, record->resolve,
                                 record->reserved, record->user_arg);
}

void pol_unregister(t_pol_user** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  // Without a context the user went with it.
  if (g_pol_ctx_p != nullptr) pol_user_delete(g_pol_ctx_p, *handle, 1);
  *handle = nullptr;
}

uint32_t pol_user_init(t_pol_ctx* ctx) {
  if (ctx == nullptr) return POL_ENOCTX;
  ctx->users.create(user_compare, offsetof(t_pol_user, link));
  return POL_OK;
}

void pol_user_destroy(t_pol_ctx* ctx) {
  if (ctx == nullptr) return;
  void* cookie = nullptr;
  while (t_pol_user* user = ctx->users.drain(&cookie)) {
    user->in_tree = 0;
    pol_user_delete(ctx, user, 0);
  }
  ctx->users.destroy();
}

t_pol_user* pol_user_find(t_pol_ctx* ctx, const char* name, uint32_t kind, uint32_t direction,
                          uintptr_t* where) {
  if (ctx == nullptr || name == nullptr) return nullptr;
  UserKey key = {kind, direction, {}};
  pol::copy_name(key.name, name);
  return ctx->users.find(&key, where);
}

t_pol_user* pol_user_find_or_create(t_pol_ctx* ctx, const char* name, const char* policy_name,
                                    uint32_t kind, uint32_t direction, t_pol_change_cb change,
                                    t_pol_resolve_cb resolve, uint64_t reserved,
                                    uint64_t user_arg) {
  if (ctx == nullptr || name == nullptr || policy_name == nullptr) return nullptr;
  avl_index where = 0;
  t_pol_user* user = pol_user_find(ctx, name, kind, direction, &where);
  if (user != nullptr) return user;
  user = pol::alloc<t_pol_user>(pol::MEM_USER);
  if (user == nullptr) return nullptr;
  pol::copy_name(user->name, name);
  user->kind = kind;
  user->direction = direction;
  user->change = change;
  user->resolve = resolve;
  user->reserved = reserved;
  user->user_arg = user_arg;
  if (pol_block_user_add(ctx, policy_name, kind, user) == nullptr) {
    pol_free(user, pol::MEM_USER);
    return nullptr;
  }
  ctx->users.insert(user, where);
  user->in_tree = 1;
  return user;
}

void pol_user_find_and_delete(t_pol_ctx* ctx, const char* name, uint32_t kind, uint32_t direction) {
  t_pol_user* user = pol_user_find(ctx, name, kind, direction, nullptr);
  if (user != nullptr) pol_user_delete(ctx, user, 1);
}

// Whether the user stands in the tree is known to the user: one that stays there freed would be met
// by the next look-up.
void pol_user_delete(t_pol_ctx* ctx, t_pol_user* user, uint8_t /*remove_from_tree*/) {
  if (ctx == nullptr || user == nullptr) return;
  if (user->block != nullptr) {
    pol_block_user_delete(ctx, user->block, user);
  } else {
    pol_user_chg_list_delete(ctx, user);
  }
  if (user->in_tree != 0) ctx->users.remove(user);
  pol_free(user, pol::MEM_USER);
}

t_pol_block* pol_block_user_add(t_pol_ctx* ctx, const char* policy_name, uint32_t kind,
                                t_pol_user* user) {
  if (user == nullptr || user->block != nullptr) return nullptr;
  uint8_t changed = 0;
  t_pol_block* block = pol_block_find_or_create(ctx, policy_name, kind, &changed);
  if (block == nullptr) return nullptr;
  user->block = block;
  user->place = ++ctx->places;
  block->users.push_back(user);
  if ((user->flags & POL_USER_QUEUED) == 0) block->unqueued.add(user);
  pol::policy_index_refresh(ctx, block);
  return block;
}

void pol_block_user_delete(t_pol_ctx* ctx, t_pol_block* block, t_pol_user* user) {
  if (ctx == nullptr || block == nullptr || user == nullptr || user->block != block) return;
  pol_user_chg_list_delete(ctx, user);
  leave_block(ctx, user);
  pol::fwd_block_release_if_orphaned(ctx, block);
}

void pol_user_chg_list_add(t_pol_ctx* ctx, t_pol_user* user) {
  if (ctx == nullptr || user == nullptr || (user->flags & POL_USER_QUEUED) != 0) return;
  if (user->block != nullptr) user->block->unqueued.remove(user);
  queue(ctx, user);
}

void pol_user_chg_list_delete(t_pol_ctx* ctx, t_pol_user* user) {
  if (ctx != nullptr && user != nullptr) unqueue(ctx, user);
}

void pol_block_users_add_to_chg_list(t_pol_ctx* ctx, t_pol_block* block) {
  if (ctx == nullptr || block == nullptr || pol::destroying(ctx)) return;
  while (t_pol_user* user = block->unqueued.drain()) queue(ctx, user);
}

void pol_user_chg_list_notify_all(t_pol_ctx* ctx) {
  if (ctx == nullptr || !may_notify(ctx)) return;
  pol::policy_index_refresh_all(ctx);
  // Users queued from now on stand behind the batch and wait, or two callbacks that change each
  // other's policy would never end.
  uint64_t next_batch = ++ctx->batch;
  while (t_pol_user* user = ctx->change_list.front()) {
    if (user->batch == next_batch) break;
    call_back(ctx, user);
  }
}

void pol_user_notify(t_pol_ctx* ctx, t_pol_user* user) {
  if (ctx == nullptr || user == nullptr || !may_notify(ctx)) return;
  pol::policy_index_refresh_all(ctx);
  call_back(ctx, user);
}

void pol_block_user_notify_all(t_pol_ctx* ctx, t_pol_block* block) {
  if (ctx == nullptr || block == nullptr || !may_notify(ctx)) return;
  pol::policy_index_refresh_all(ctx);
  for (t_pol_user* user = block->users.front(); user != nullptr; user = ctx->notify_next) {
    ctx->notify_next = pol::BlockUsers::next(user);
    call_back(ctx, user);
  }
}
