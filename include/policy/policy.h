/* SPDX-License-Identifier: Apache-2.0
 *
 * policy.h - the whole interface of libpolicy.
 */
#ifndef POLICY_POLICY_H
#define POLICY_POLICY_H

#include "policy/pol_app_list.h"
#include "policy/pol_block.h"
#include "policy/pol_clause.h"
#include "policy/pol_color_list.h"
#include "policy/pol_config.h"
#include "policy/pol_config_tags.h"
#include "policy/pol_content.h"
#include "policy/pol_context.h"
#include "policy/pol_dump.h"
#include "policy/pol_exec.h"
#include "policy/pol_fwd_action.h"
#include "policy/pol_fwd_app_id.h"
#include "policy/pol_fwd_block.h"
#include "policy/pol_fwd_document.h"
#include "policy/pol_fwd_label.h"
#include "policy/pol_fwd_match.h"
#include "policy/pol_fwd_pfx_list.h"
#include "policy/pol_fwd_policer.h"
#include "policy/pol_fwd_sla_class.h"
#include "policy/pol_graph.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_show_data.h"
#include "policy/pol_site_list.h"
#include "policy/pol_test.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_trace.h"
#include "policy/pol_types.h"
#include "policy/pol_user.h"
#include "policy/pol_util.h"
#include "policy/pol_vpn_list.h"
#include "policy/pol_xml_compat.h"
#include "policy/pol_xml_config.h"
#include "policy/pol_yarrow_thread.h"

#endif
