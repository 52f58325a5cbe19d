// SPDX-License-Identifier: Apache-2.0
// Asking the worker for the texts of what changed.
#include <initializer_list>

#include "core/pol_context_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "policy/pol_fwd_document.h"
#include "policy/pol_xml_config.h"

namespace {

void request(t_pol_ctx* ctx, pol_xml_type type, const char* name, uint8_t* marked) {
  if (*marked == 0) return;
  pol::thread_push_fetch(&ctx->thread, pol::QUEUE_FETCH, type, name);
  *marked = 0;
}

void request_policies(t_pol_ctx* ctx, pol_kind kind, pol_xml_type type) {
  const pol::AvlTree<t_pol_block>& blocks = ctx->blocks[kind - 1];
  for (t_pol_block* block = blocks.first(); block != nullptr; block = blocks.next(block)) {
    request(ctx, type, block->name, &block->fetch_xml);
  }
}

template <class List>
void request_lists(t_pol_ctx* ctx, const pol::NamedTree<List>& lists, pol_xml_type type) {
  for (List* list = lists.first(); list != nullptr; list = lists.next(list)) {
    request(ctx, type, list->head.name, &list->changed);
  }
}

}  // namespace

void pol_fwd_queue_xml_config(t_pol_ctx* ctx) {
  if (ctx == nullptr) return;
  request_policies(ctx, POL_KIND_DATA, POL_XML_DATA_POLICY);
  request_policies(ctx, POL_KIND_PERF_ROUTE, POL_XML_APP_ROUTE_POLICY);
  request_policies(ctx, POL_KIND_CFLOWD, POL_XML_CFLOWD_TEMPLATE);
  request_lists(ctx, ctx->vpn_lists, POL_XML_VPN_LIST);
  request_lists(ctx, ctx->tloc_lists, POL_XML_TLOC_LIST);
  request_lists(ctx, ctx->fwd_pfx_lists, POL_XML_DATA_PREFIX_LIST);
  request_lists(ctx, ctx->fwd_pfx6_lists, POL_XML_DATA_IPV6_PREFIX_LIST);
  request_lists(ctx, ctx->policers, POL_XML_POLICER);
  request_lists(ctx, ctx->sla_classes, POL_XML_SLA_CLASS);
  request_lists(ctx, ctx->app_lists, POL_XML_APP_LIST);
}

uint8_t pol_fwd_policy_is_yarrow_updated() {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr) return 1;
  for (pol::ThreadQueue queue : {pol::QUEUE_LABEL_SET, pol::QUEUE_LABEL_FETCH, pol::QUEUE_FETCH}) {
    if (!pol::thread_queue_empty(&ctx->thread, queue)) return 0;
  }
  return 1;
}
