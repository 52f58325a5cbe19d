/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_xml_config.h - cache of the management agent's XML text of policies and lists.
 *
 * One record per object type and name, made when the object is, dropped with it. The text is what
 * the agent saved, cut to start at the type's header and to end before its footer.
 *
 * Shapes  name: NUL-terminated, its first 127 bytes count. Order: by type, then name, bytewise.
 * Threads every call takes the cache's spinlock; it is never held across a call into the agent.
 */
#ifndef POLICY_POL_XML_CONFIG_H
#define POLICY_POL_XML_CONFIG_H

#include "policy/pol_types.h"

enum pol_xml_type {
  POL_XML_DATA_POLICY = 1,
  POL_XML_APP_ROUTE_POLICY = 2,
  POL_XML_CFLOWD_TEMPLATE = 3,
  POL_XML_VPN_LIST = 4,
  POL_XML_TLOC_LIST = 5,
  POL_XML_DATA_PREFIX_LIST = 6,
  POL_XML_DATA_IPV6_PREFIX_LIST = 7,
  POL_XML_SLA_CLASS = 8,
  POL_XML_POLICER = 9,
  POL_XML_APP_LIST = 10
};
#define POL_XML_TYPES 11

/* By object type; row 0 is empty. The header opens the cached text; the footer is cut off. */
POL_DATA const char* const pol_fwd_type2headerstr[POL_XML_TYPES];
POL_DATA const char* const pol_fwd_type2footerstr[POL_XML_TYPES];

POL_API uint32_t pol_xml_config_init(t_pol_ctx* ctx);
/* Returns what destroying the spinlock returned. */
POL_API uint32_t pol_xml_config_deinit(t_pol_ctx* ctx);

/* The record of g_pol_ctx_p, made without text if need be. Null without a context or memory, or
 * when the lock cannot be taken. */
POL_API t_pol_xml_config* pol_xml_config_find_or_create(int32_t type, const char* name);
POL_API void pol_xml_config_find_and_delete(int32_t type, const char* name);

/* Appends the cached text to a buffer of pol_fwd_policy_append. 0 also when there is none;
 * POL_ELOCK when the lock cannot be taken; otherwise the append's or the unlock's error. */
POL_API uint32_t pol_xml_config_get_str(int32_t type, const char* name, char** buffer,
                                        uint32_t* room);

#endif
