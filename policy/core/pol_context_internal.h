// SPDX-License-Identifier: Apache-2.0
//
// pol_context_internal.h - the policy context.
#pragma once

#include <pthread.h>

#include <cerrno>

#include "base/avl_tree.h"
#include "core/pol_block_internal.h"
#include "core/pol_thread_state.h"
#include "core/pol_user_internal.h"
#include "lists/pol_list_internal.h"
#include "policy/pol_context.h"

enum pol_ctx_flag : uint32_t { POL_CTX_DESTROYING = 0x1, POL_CTX_NOTIFYING = 0x2 };

struct t_pol_xml_config;

struct t_pol_ctx {
  uint32_t flags;                       // enum pol_ctx_flag
  pol::AvlTree<t_pol_block> blocks[5];  // by kind - 1

  pol::NamedTree<t_pfx_list> pfx_lists;
  pol::NamedTree<t_tloc_list> tloc_lists;
  pol::NamedTree<t_site_list> site_lists;
  pol::NamedTree<t_vpn_list> vpn_lists;
  pol::NamedTree<t_color_list> color_lists;
  pol::NamedTree<t_app_list> app_lists;
  pol::NamedTree<t_fwd_pfx_list> fwd_pfx_lists;
  pol::NamedTree<t_fwd_pfx_list> fwd_pfx6_lists;
  pol::NamedTree<t_fwd_sla_class> sla_classes;
  pol::NamedTree<t_fwd_policer> policers;
  pol::NamedTree<t_fwd_app_id> app_ids;

  pol::AvlTree<t_pol_xml_config> xml_configs;
  pthread_spinlock_t xml_lock;
  uint8_t xml_lock_made;
  uint64_t xml_generation;  // of the cache's records: one more for each that goes
  t_pol_yarrow_thread thread;

  pol::AvlTree<t_pol_user> users;
  pol::ChangeList change_list;
  uint64_t batch;           // counts notification passes
  uint64_t places;          // counts users that were given a policy
  t_pol_user* notify_next;  // the user that pol_block_user_notify_all goes to next

  pol::IndexQueue index_due;

  t_pol_service_resolve_cb resolve_service;
};

namespace pol {

inline bool destroying(const t_pol_ctx* ctx) { return (ctx->flags & POL_CTX_DESTROYING) != 0; }

// 0, or the error; one where the cache's lock could not be made.
inline int xml_lock(t_pol_ctx* ctx) {
  return ctx->xml_lock_made != 0 ? pthread_spin_lock(&ctx->xml_lock) : EINVAL;
}

}  // namespace pol
