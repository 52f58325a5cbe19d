// SPDX-License-Identifier: Apache-2.0
#include "policy/pol_fwd_block.h"

#include <cstring>

#include "base/pol_crash.h"
#include "base/pol_memory.h"
#include "pol_clause_internal.h"
#include "pol_fwd_block_internal.h"
#include "policy/pol_clause.h"
#include "policy/pol_xml_config.h"

namespace pol {
namespace {

int fwd_vpn_compare(const void* key, const void* node) {
  return sign(
      strncmp(static_cast<const char*>(key), static_cast<const char*>(node), POL_NAME_SIZE));
}

void fwd_block_free(t_pol_ctx* ctx, t_pol_block* block) {
  // The cache frees what it holds when the context goes; by then a record may be gone already.
  if (!destroying(ctx)) pol_xml_config_find_and_delete(xml_type_of(block->kind), block->name);
  block->fwd_vpns.destroy();
  pol_free(block, MEM_BLOCK);
}

}  // namespace

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
  if (!destroying(ctx)) ctx->blocks[block->kind - 1].remove(block);
  fwd_block_free(ctx, block);
}

}  // namespace pol

uint32_t pol_fwd_block_init(t_pol_ctx* /*ctx*/, t_pol_block* block) {
  block->fwd_vpns.create(pol::fwd_vpn_compare, offsetof(t_pol_fwd_vpn_entry, link));
  return POL_OK;
}

void pol_fwd_block_delete(t_pol_ctx* ctx, avl_tree* tree, t_pol_block* block,
                          uint8_t remove_from_tree) {
  if (!pol::is_forwarding(block->kind)) pol::crash();
  // Text policy files give forwarding policies default actions with clauses; those are on lists.
  uint8_t changed = 0;
  pol_entry_set_delete(ctx, &block->default_action, &changed);
  pol_entry_match_delete(ctx, &block->default_action, &changed);
  pol::entry_reset(&block->default_action, block);
  if (!block->users.empty()) {
    block->orphaned = 1;
    pol_block_users_add_to_chg_list(ctx, block);
    return;
  }
  if (remove_from_tree != 0) avl_remove(tree, block);
  pol::fwd_block_free(ctx, block);
}
