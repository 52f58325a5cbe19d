// SPDX-License-Identifier: Apache-2.0
// The life of the context, the memory table and its report.
#include "core/pol_context_internal.h"

#include <malloc.h>

#include <cstdio>
#include <cstring>

#include "base/pol_memory.h"
#include "exchange/pol_xml_config_internal.h"
#include "forward/pol_fwd_document_internal.h"
#include "policy/pol_app_list.h"
#include "policy/pol_color_list.h"
#include "policy/pol_dump.h"
#include "policy/pol_fwd_app_id.h"
#include "policy/pol_fwd_pfx_list.h"
#include "policy/pol_fwd_policer.h"
#include "policy/pol_fwd_sla_class.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"
#include "policy/pol_xml_config.h"
#include "yarrow/yarrow_cli.h"

t_pol_ctx* g_pol_ctx_p = nullptr;
int32_t g_pol_dbg_level = 0;
char g_polbuf1[512];

#define ROW(type, size, description, type_name) \
  { type, 0, description, type_name, size, 0, 0, 0 }

t_pol_mem_info g_pol_mem_info[POL_MEM_TYPES] = {
    ROW(0, 0, "unknown", "unknown"),
    ROW(1, sizeof(t_pol_ctx), "context", "t_pol_ctx"),
    ROW(2, sizeof(t_pol_block), "block", "t_pol_block"),
    ROW(3, sizeof(t_pol_entry), "entry", "t_pol_entry"),
    ROW(4, sizeof(t_pol_thread_queue_item), "pol-yarrow-thrd-args", "pol_thread_queue_item"),
    ROW(5, 0, "omp-yarrow-thrd-args", "omp_thread_queue_item"),
    ROW(6, 0, "populate peer xml", "unknown"),
    ROW(7, 0, "set Yarrow xml", "unknown"),
    ROW(8, sizeof(t_pol_xml_config), "policy config", "t_pol_xml_config"),
    ROW(9, 0, "Yarrow fetch xml", "unknown"),
    ROW(10, 0, "config xml", "unknown"),
    ROW(11, sizeof(t_fwd_sla_class), "sla class", "t_fwd_sla_class"),
    ROW(12, sizeof(t_fwd_policer), "policer", "t_fwd_policer"),
    ROW(13, 0, "site", "t_omp_site_policy"),
    ROW(14, sizeof(t_pol_user), "pol user", "t_pol_user"),
    ROW(15, sizeof(t_pol_list_user), "pol user", "t_pol_list_user"),
    ROW(16, sizeof(t_pfx_list), "pfx list", "t_pfx_list"),
    ROW(17, sizeof(t_fwd_pfx_list), "fwd pfx list", "t_fwd_pfx_list"),
    ROW(18, sizeof(t_site_list), "site list", "t_site_list"),
    ROW(19, sizeof(t_tloc_list), "tloc list", "t_tloc_list"),
    ROW(20, sizeof(t_app_list), "app list", "t_app_list"),
    ROW(21, sizeof(t_color_list), "color list", "t_color_list"),
    ROW(22, sizeof(t_vpn_list), "vpn list", "t_vpn_list"),
    ROW(23, POL_MAX_VPN * sizeof(t_pol_vpn_range), "set vpn list", "POL_MAX_VPN*vpn_list"),
    ROW(24, sizeof(t_pol_fwd_entry), "entry policy", "t_pol_entry"),
    ROW(25, sizeof(t_site_entry), "entry site ", "t_site_entry"),
    ROW(26, sizeof(t_list_name_entry), "entry list", "t_list_name_entry"),
    ROW(27, sizeof(t_pfx_entry), "entry prefix", "t_pfx_entry"),
    ROW(28, sizeof(t_tloc_entry), "entry tloc", "t_tloc_entry"),
    ROW(29, sizeof(t_color_entry), "entry color", "t_color_entry"),
    ROW(30, sizeof(t_pol_vpn_entry), "entry vpn", "t_pol_vpn_entry"),
    ROW(31, sizeof(t_pol_fwd_vpn_entry), "entry fwd vpn", "t_pol_fwd_vpn_entry"),
    ROW(32, sizeof(t_fwd_app_id), "entry appid", "t_fwd_app_id"),
};
#undef ROW

static_assert(POL_MAX_VPN * sizeof(t_pol_vpn_range) == 2048);
static_assert(sizeof(t_pol_route_attr) == 944);
static_assert(sizeof(t_pol_tloc_result_entry) == 40);

namespace {

using InitModule = uint32_t (*)(t_pol_ctx*);

// Named lists that the agent keeps text of register with the XML cache by the global context, so
// the cache may come after them.
constexpr InitModule kInit[] = {
    pol_user_init,
    pol_block_init,
    pol_pfx_list_main_init,
    pol_fwd_pfx_list_main_init,
    pol_fwd_pfx6_list_main_init,
    pol_app_list_main_init,
    pol_fwd_policer_main_init,
    pol_fwd_app_id_main_init,
    pol_fwd_sla_class_main_init,
    pol_tloc_list_main_init,
    pol_site_list_main_init,
    pol_vpn_list_main_init,
    pol_color_list_main_init,
    pol_xml_config_init,
};

}  // namespace

const char* pol_version() { return POL_VERSION; }

t_pol_ctx* pol_init(const t_pol_callbacks* callbacks) {
  if (callbacks == nullptr) return nullptr;
  auto* ctx = pol::alloc<t_pol_ctx>(pol::MEM_CONTEXT);
  if (ctx == nullptr) return nullptr;
  g_pol_ctx_p = ctx;
  ctx->resolve_service = callbacks->resolve_service;
  for (InitModule init : kInit) {
    if (init(ctx) != POL_OK) return nullptr;
  }
  if (pol_yarrow_thread_init(&ctx->thread) != POL_OK) return nullptr;
  return ctx;
}

// Policies go first, because their clauses are users of the lists; lists go before the users for
// the same reason. The worker ends before the cache goes, because it may be storing a text there;
// where it does not end it keeps the cache and the context, to which nothing leads any more.
void pol_destroy() {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr) return;
  ctx->flags |= POL_CTX_DESTROYING;
  pol_block_destroy(ctx);
  pol_pfx_list_main_deinit(ctx);
  pol_app_list_main_deinit(ctx);
  pol_fwd_pfx_list_main_deinit(ctx);
  pol_fwd_pfx6_list_main_deinit(ctx);
  pol_fwd_app_id_main_deinit(ctx);
  pol_fwd_sla_class_main_deinit(ctx);
  pol_fwd_policer_main_deinit(ctx);
  pol_tloc_list_main_deinit(ctx);
  pol_site_list_main_deinit(ctx);
  pol_vpn_list_main_deinit(ctx);
  pol_color_list_main_deinit(ctx);
  bool ended = pol_yarrow_thread_deinit(&ctx->thread) == POL_OK;
  if (ended) pol_xml_config_deinit(ctx);
  pol_user_destroy(ctx);
  if (ended) pol_free(ctx, pol::MEM_CONTEXT);
  g_pol_ctx_p = nullptr;
}

void pol_debug_set(uint32_t level) {
  __atomic_store_n(&g_pol_dbg_level, static_cast<int32_t>(level), __ATOMIC_RELAXED);
}

int pol_dump_memory_info(t_cli_user_ctx* cli, uint32_t /*ignored*/, int argc, char** argv) {
  static constexpr char kReport[] = "/var/log/pol_meminfo.txt";
  bool detail = argc >= 2 && strstr(argv[1], "--detail") != nullptr;
  maapi_cli_printf(cli, "    ================================");
  maapi_cli_printf(cli, "\n    MEMORY STATISTICS");
  maapi_cli_printf(cli, "\n    ================================");
  maapi_cli_printf(cli, "\n%-20s    %-25s    %-10s  %-4s  %-12s    %-12s    %-12s    %-12s\n",
                   "DESCRIPTION", "TYPE", "SIZE", "CACHE", "#ALLOC", "#FREE", "#PEAK", "#CURRENT");
  for (const t_pol_mem_info& row : g_pol_mem_info) {
    uint64_t allocs = __atomic_load_n(&row.allocs, __ATOMIC_RELAXED);
    uint64_t frees = __atomic_load_n(&row.frees, __ATOMIC_RELAXED);
    maapi_cli_printf(cli, "\n%-20s    %-25s    %-10u  %-4s  %-12lu    %-12lu    %-12lu    %-12lu",
                     row.description, row.type_name, row.size, row.cache != 0 ? "yes" : "no",
                     allocs, frees, __atomic_load_n(&row.peak, __ATOMIC_RELAXED), allocs - frees);
  }
  maapi_cli_printf(cli, "\n");
  if (!detail) return 0;
  FILE* file = fopen(kReport, "w");
  if (file == nullptr) return 0;
  if (malloc_info(0, file) == -1) {
    maapi_cli_printf(cli, "\n Could not write malloc info to %s\n", kReport);
  } else {
    maapi_cli_printf(cli, "\n wrote malloc info to %s\n", kReport);
  }
  fclose(file);
  return 0;
}
