// SPDX-License-Identifier: Apache-2.0
// Policies and their sequences.
//
// A policy of kind route, membership or cflowd keeps its sequences in a tree, and besides in a
// queue by number, because evaluation walks them and a queue is the shorter way from one to the
// next. The default action is a sequence that stands outside both.
#include "core/pol_block_internal.h"

#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_clause_internal.h"
#include "core/pol_context_internal.h"
#include "core/pol_policy_index.h"
#include "policy/pol_clause.h"
#include "policy/pol_fwd_block.h"
#include "policy/pol_xml_config.h"

namespace {

int block_compare(const void* key, const void* node) {
  return pol::sign(
      strncmp(static_cast<const char*>(key), static_cast<const char*>(node), POL_NAME_SIZE));
}

pol::AvlTree<t_pol_block>* tree_of(t_pol_ctx* ctx, uint32_t kind) {
  if (ctx == nullptr || kind < POL_KIND_ROUTE || kind > POL_KIND_CFLOWD) return nullptr;
  return &ctx->blocks[kind - 1];
}

bool known_action(uint32_t action) { return action == POL_ACCEPT || action == POL_REJECT; }

bool has_entries_tree(const t_pol_block* block) { return !pol::is_forwarding(block->kind); }

void delete_clauses(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed = nullptr) {
  pol_entry_set_delete(ctx, entry, changed);
  pol_entry_match_delete(ctx, entry, changed);
}

void clear_default_action(t_pol_ctx* ctx, t_pol_block* block, uint8_t* changed = nullptr) {
  delete_clauses(ctx, &block->default_action, changed);
  pol::entry_reset(&block->default_action, block);
}

// REQUIRES: a block that has an entries tree, out of its own tree.
void block_delete(t_pol_ctx* ctx, t_pol_block* block) {
  void* cookie = nullptr;
  while (t_pol_entry* entry = block->entries.drain(&cookie)) {
    block->in_order.remove(entry);
    delete_clauses(ctx, entry);
    pol_block_users_add_to_chg_list(ctx, block);
    pol_free(entry, pol::MEM_ENTRY);
  }
  block->entries.destroy();
  if (block->default_action.action != POL_REJECT) pol_block_users_add_to_chg_list(ctx, block);
  clear_default_action(ctx, block);
  pol_block_users_add_to_chg_list(ctx, block);
  pol::block_users_forget(ctx, block);
  if (block->kind == POL_KIND_CFLOWD) {
    pol_xml_config_find_and_delete(POL_XML_CFLOWD_TEMPLATE, block->name);
  }
  pol::policy_index_drop(ctx, block);
  pol::block_free(block);
}

}  // namespace

namespace pol {

void block_leave_tree(t_pol_ctx* ctx, t_pol_block* block) {
  if (block->in_tree == 0) return;
  block->in_tree = 0;
  ctx->blocks[block->kind - 1].remove(block);
}

void block_free(t_pol_block* block) {
  block->unqueued.destroy();
  pol_free(block, MEM_BLOCK);
}

int32_t xml_type_of(uint32_t kind) {
  switch (kind) {
    case POL_KIND_DATA:
      return POL_XML_DATA_POLICY;
    case POL_KIND_PERF_ROUTE:
      return POL_XML_APP_ROUTE_POLICY;
    case POL_KIND_CFLOWD:
      return POL_XML_CFLOWD_TEMPLATE;
    default:
      return 0;
  }
}

void fwd_block_release_if_orphaned(t_pol_ctx* ctx, t_pol_block* block) {
  if (block->orphaned == 0 || !block->users.empty()) return;
  // Again as a whole: it may have got a default action since.
  pol_fwd_block_delete(ctx, ctx->blocks[block->kind - 1].raw(), block, 1);
}

void fwd_leftover_release(t_pol_fwd_user* user) {
  if (user->entry != nullptr) return;
  if (user->dns_app_list.list != nullptr || user->saas_app_list.list != nullptr) return;
  t_pol_block* block = user->app_list.block;
  if (block != nullptr) block->leftovers.remove(user);
  fwd_record_free(user);
}

}  // namespace pol

uint32_t pol_block_init(t_pol_ctx* ctx) {
  if (ctx == nullptr) return POL_ENOCTX;
  for (auto& tree : ctx->blocks) tree.create(block_compare, offsetof(t_pol_block, link));
  return POL_OK;
}

void pol_block_destroy(t_pol_ctx* ctx) {
  if (ctx == nullptr) return;
  for (auto& tree : ctx->blocks) {
    void* cookie = nullptr;
    while (t_pol_block* block = tree.drain(&cookie)) {
      block->in_tree = 0;
      if (has_entries_tree(block)) {
        block_delete(ctx, block);
      } else {
        pol_fwd_block_delete(ctx, tree.raw(), block, 0);
      }
    }
    tree.destroy();
  }
}

t_pol_block* pol_block_first(t_pol_ctx* ctx, uint32_t kind) {
  auto* tree = tree_of(ctx, kind);
  return tree != nullptr ? tree->first() : nullptr;
}

t_pol_block* pol_block_next(t_pol_ctx* ctx, t_pol_block* block, uint32_t kind) {
  if (block == nullptr) return nullptr;
  if (block->kind != kind) pol::crash("a walk into a policy of another kind");
  auto* tree = tree_of(ctx, kind);
  return tree != nullptr ? tree->next(block) : nullptr;
}

const char* pol_block_get_name(const t_pol_block* block) {
  return block != nullptr ? block->name : nullptr;
}

t_pol_block* pol_block_find(t_pol_ctx* ctx, const char* name, uint32_t kind, uintptr_t* where) {
  auto* tree = tree_of(ctx, kind);
  if (tree == nullptr || name == nullptr) return nullptr;
  char key[POL_NAME_SIZE];
  pol::copy_name(key, name);
  return tree->find(key, where);
}

t_pol_block* pol_block_find_or_create(t_pol_ctx* ctx, const char* name, uint32_t kind,
                                      uint8_t* changed) {
  auto* tree = tree_of(ctx, kind);
  if (tree == nullptr || name == nullptr) return nullptr;
  avl_index where = 0;
  t_pol_block* block = pol_block_find(ctx, name, kind, &where);
  if (block != nullptr) {
    block->orphaned = 0;
    return block;
  }
  block = pol::alloc<t_pol_block>(pol::MEM_BLOCK);
  if (block == nullptr) return nullptr;
  pol::copy_name(block->name, name);
  tree->insert(block, where);
  block->in_tree = 1;
  block->unqueued.create();
  block->kind = kind;
  if (int32_t xml_type = pol::xml_type_of(kind)) {
    pol_xml_config_find_or_create(xml_type, block->name);
  }
  if (has_entries_tree(block)) {
    block->entries.create(pol_entry_cmp, offsetof(t_pol_entry, link));
  } else {
    pol_fwd_block_init(ctx, block);
  }
  pol::entry_reset(&block->default_action, block);
  block->fetch_xml = 1;
  pol::mark_changed(changed);
  return block;
}

void pol_block_find_and_delete(t_pol_ctx* ctx, const char* name, uint32_t kind, uint8_t* changed) {
  t_pol_block* block = pol_block_find(ctx, name, kind, nullptr);
  if (block == nullptr) return;
  pol::mark_changed(changed);
  if (has_entries_tree(block)) {
    pol::block_leave_tree(ctx, block);
    block_delete(ctx, block);
  } else {
    pol_fwd_block_delete(ctx, tree_of(ctx, kind)->raw(), block, 1);
  }
}

t_pol_entry* pol_block_default_action_add(t_pol_ctx* ctx, t_pol_block* block,
                                          const t_pol_entry* record, uint8_t* changed) {
  if (ctx == nullptr || block == nullptr || record == nullptr) return nullptr;
  if (pol::is_forwarding(*record)) pol::crash("a default action from a forwarding sequence");
  if (!known_action(record->action)) return nullptr;
  t_pol_entry* own = &block->default_action;
  if (pol::clauses_equal(*own, *record) && own->action == record->action) return own;
  delete_clauses(ctx, own);
  pol::mark_changed(changed);
  bool copied = pol::clauses_copy(ctx, own, *record);
  own->action = record->action;
  pol_block_users_add_to_chg_list(ctx, block);
  return copied ? own : nullptr;
}

void pol_block_default_action_delete(t_pol_ctx* ctx, t_pol_block* block, uint8_t* changed) {
  if (ctx == nullptr || block == nullptr) return;
  if (block->default_action.action != POL_REJECT) {
    pol::mark_changed(changed);
    pol_block_users_add_to_chg_list(ctx, block);
  }
  clear_default_action(ctx, block, changed);
}

int pol_entry_cmp(const void* a, const void* b) {
  uint32_t x = *static_cast<const uint32_t*>(a);
  uint32_t y = *static_cast<const uint32_t*>(b);
  return (x > y) - (x < y);
}

t_pol_entry* pol_entry_first(t_pol_ctx* ctx, t_pol_block* block) {
  if (ctx == nullptr || block == nullptr || !has_entries_tree(block)) return nullptr;
  return block->entries.first();
}

t_pol_entry* pol_entry_next(t_pol_ctx* ctx, t_pol_entry* entry) {
  if (ctx == nullptr || entry == nullptr || !has_entries_tree(entry->block)) return nullptr;
  return entry->block->entries.next(entry);
}

uint32_t pol_entry_get_sequence(const t_pol_entry* entry) {
  return entry != nullptr ? entry->sequence : 0;
}

t_pol_entry* pol_entry_find(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                            uintptr_t* where) {
  if (ctx == nullptr || block == nullptr || !has_entries_tree(block)) return nullptr;
  return block->entries.find(&sequence, where);
}

t_pol_entry* pol_entry_find_or_create(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                                      uint8_t* changed) {
  if (ctx == nullptr || block == nullptr || !has_entries_tree(block)) return nullptr;
  avl_index where = 0;
  t_pol_entry* entry = block->entries.find(&sequence, &where);
  if (entry != nullptr) return entry;
  entry = pol::alloc<t_pol_entry>(pol::MEM_ENTRY);
  if (entry == nullptr) return nullptr;
  entry->sequence = sequence;
  pol::entry_reset(entry, block);
  block->entries.insert(entry, where);
  block->in_order.insert_after(block->entries.previous(entry), entry);
  pol::policy_index_stale(ctx, block, entry);
  pol::mark_changed(changed);
  pol_block_users_add_to_chg_list(ctx, block);
  return entry;
}

void pol_entry_find_and_delete(t_pol_ctx* ctx, t_pol_block* block, uint32_t sequence,
                               uint8_t* changed) {
  t_pol_entry* entry = pol_entry_find(ctx, block, sequence, nullptr);
  if (entry == nullptr) return;
  delete_clauses(ctx, entry);
  pol_block_users_add_to_chg_list(ctx, block);
  block->entries.remove(entry);
  block->in_order.remove(entry);
  pol::policy_index_stale(ctx, block, nullptr);
  pol_free(entry, pol::MEM_ENTRY);
  pol::mark_changed(changed);
}

t_pol_entry* pol_entry_action_add(t_pol_ctx* ctx, t_pol_entry* entry, uint32_t action,
                                  uint8_t* changed) {
  if (ctx == nullptr || entry == nullptr || !known_action(action)) return nullptr;
  if (entry->action == action) return entry;
  entry->action = action;
  pol::mark_changed(changed);
  pol_block_users_add_to_chg_list(ctx, entry->block);
  return entry;
}

void pol_entry_action_delete(t_pol_ctx* ctx, t_pol_entry* entry, uint8_t* changed) {
  if (entry != nullptr) pol_entry_action_add(ctx, entry, POL_REJECT, changed);
}
