// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_object_list.h - what the named objects without elements share: application lists,
// forwarding prefix lists, SLA classes, policers and application ids.
//
// Their content is the agent's; the library knows who uses them, so that a change reaches the
// policies. A family says by its Facts how it differs:
//   Node        its node: head, users (a queue a role) and, with kXmlType, changed
//   kTree       its tree in the context
//   kMemory     its memory type
//   kXmlType    enum pol_xml_type of its text; 0 when the agent has none
//   kTitle, kWord   what its dump says
//   kRoles      in which roles it is used, of pol_fwd_roles.h
#pragma once

#include <iterator>

#include "base/pol_crash.h"
#include "core/pol_context_internal.h"
#include "core/pol_dump_internal.h"
#include "lists/named_list.h"
#include "lists/pol_fwd_roles.h"
#include "policy/pol_xml_config.h"

namespace pol {

template <class Facts>
struct FwdObjectList {
  using Node = typename Facts::Node;

  static uint32_t init(t_pol_ctx* ctx) { return named_init(ctx, Facts::kTree); }

  static uint32_t deinit(t_pol_ctx* ctx) { return named_deinit(ctx, Facts::kTree, release); }

  // Anything of the object changed, or it was made.
  static uint32_t entry_change(t_pol_ctx* ctx, const char* name) {
    if (ctx == nullptr) return POL_ENOCTX;
    if (name == nullptr) return POL_EINVAL;
    Node* node = find_or_create(ctx, name);
    if (node == nullptr) return POL_ENOMEM;
    if constexpr (Facts::kXmlType != 0) node->changed = 1;
    for (const UserQueue& users : node->users) mark_blocks(ctx, users);
    pol_user_chg_list_notify_all(ctx);
    return POL_OK;
  }

  // On purpose: a used object stays as it is, and nobody is told.
  static uint32_t cfg_del(t_pol_ctx* ctx, const char* name) {
    Node* node = named_find(ctx, Facts::kTree, name);
    if (node != nullptr) free_if_unused(ctx, &node->head);
    return POL_OK;
  }

  static Node* user_add(t_pol_ctx* ctx, const char* name, size_t role, t_pol_fwd_user* user) {
    if (ctx == nullptr || name == nullptr || user == nullptr) return nullptr;
    Node* node = find_or_create(ctx, name);
    if (node == nullptr) return nullptr;
    pol::user_add(ctx, &node->head, node->users[role], &(user->*Facts::kRoles[role].user));
    return node;
  }

  static uint32_t user_remove(t_pol_ctx* ctx, Node* node, size_t role, t_pol_fwd_user* user) {
    if (node == nullptr || user == nullptr) return POL_EINVAL;
    return pol::user_remove(ctx, &node->head, node->users[role],
                            &(user->*Facts::kRoles[role].user));
  }

  static Node* first(t_pol_ctx* ctx) { return ctx != nullptr ? tree(ctx).first() : nullptr; }
  static Node* next(t_pol_ctx* ctx, Node* node) {
    return ctx != nullptr && node != nullptr ? tree(ctx).next(node) : nullptr;
  }

  static void dump(Node* node, t_cli_user_ctx* cli) {
    if (node == nullptr) return;
    auto* address = static_cast<void*>(node);
    if constexpr (Facts::kXmlType != 0) {
      maapi_cli_printf(cli, "\n%s: %s (%p, %u)", Facts::kWord, node->head.name, address,
                       unsigned{node->changed});
    } else {
      maapi_cli_printf(cli, "\n%s: %s (%p)", Facts::kWord, node->head.name, address);
    }
    for (size_t role = 0; role < std::size(node->users); ++role) {
      for (const t_pol_clause_user& user : node->users[role]) {
        maapi_cli_printf(cli, "\n  %s User: %s", Facts::kRoles[role].dump_word,
                         user.block != nullptr ? user.block->name : "<none>");
      }
    }
    maapi_cli_printf(cli, "\nend \n");
  }

  static int dump_all(t_cli_user_ctx* cli) {
    return dump_lists(cli, Facts::kTitle, Facts::kTree, dump);
  }

 private:
  static NamedTree<Node>& tree(t_pol_ctx* ctx) { return ctx->*Facts::kTree; }

  static bool unused(const Node& node) {
    for (const UserQueue& users : node.users) {
      if (!users.empty()) return false;
    }
    return true;
  }

  static Node* find_or_create(t_pol_ctx* ctx, const char* name) {
    uint8_t created = 0;
    Node* node = named_find_or_create(tree(ctx), name, Facts::kMemory, free_if_unused, &created);
    if constexpr (Facts::kXmlType != 0) {
      if (created != 0) {
        pol_xml_config_find_or_create(Facts::kXmlType, node->head.name);
        node->changed = 1;
      }
    }
    return node;
  }

  static void free_if_unused(t_pol_ctx* ctx, NamedHead* head) {
    auto* node = reinterpret_cast<Node*>(head);
    if (unused(*node)) node_free(ctx, node, true);
  }

  static void release(t_pol_ctx* ctx, Node* node) { node_free(ctx, node, false); }

  static void node_free(t_pol_ctx* ctx, Node* node, bool remove_from_tree) {
    if (!unused(*node)) crash("an object that goes is in use");
    if (remove_from_tree) tree(ctx).remove(node);
    if constexpr (Facts::kXmlType != 0) {
      pol_xml_config_find_and_delete(Facts::kXmlType, node->head.name);
    }
    named_release(node, Facts::kMemory);
  }
};

}  // namespace pol
