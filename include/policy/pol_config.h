/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_config.h - readers of the management agent's configuration changes.
 *
 * The host walks the changes that the agent reports and hands each changed list entry to the reader
 * of its path. A reader turns keys and values into calls on lists and policies; it decides nothing
 * itself.
 *
 * Arguments  host: the host's own, never read. ctx: the context. op: enum pol_cfg_op. level: lists
 *            on the path below "/policy" or "/policy/lists", 1 for the object itself. keys: of all
 *            lists on the path, outermost first. num: changed leaves in `values`, of which the low
 *            16 bits count.
 * Status     0 done; list readers: -1 for an unreadable range; control and membership policies and
 *            application lists: 1 when one cannot be made. What a list answers is not passed on.
 * Aborts     on purpose: a key or value of another type than the reader's schema says fails an
 *            assertion; another level than the reader's own, and what cannot be made where no
 *            status says so, ends the process. The schema keeps types and levels from being wrong.
 * Threads    the host's configuration thread, one call at a time.
 */
#ifndef POLICY_POL_CONFIG_H
#define POLICY_POL_CONFIG_H

#include "policy/pol_types.h"
#include "yarrow/yarrow_values.h"

typedef t_yarrow_value pol_cfg_value;
typedef t_yarrow_tag_value pol_cfg_tag_value;

enum pol_cfg_op {
  POL_CFG_CREATED = 1,
  POL_CFG_DELETED = 2,
  POL_CFG_MODIFIED = 3,
  POL_CFG_VALUE_SET = 4
};

typedef uint32_t (*t_pol_config_reader)(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                        const pol_cfg_value* keys, uint32_t num,
                                        const pol_cfg_tag_value* values);

/* A whole list, keys: name. Deleted: its configuration goes; anything else is no matter. */
POL_API uint32_t pol_config_policy_site_list_name(void* host, t_pol_ctx* ctx, uint32_t op,
                                                  uint8_t level, const pol_cfg_value* keys,
                                                  uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_vpn_list_name(void* host, t_pol_ctx* ctx, uint32_t op,
                                                 uint8_t level, const pol_cfg_value* keys,
                                                 uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_tloc_list_name(void* host, t_pol_ctx* ctx, uint32_t op,
                                                  uint8_t level, const pol_cfg_value* keys,
                                                  uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_color_list_name(void* host, t_pol_ctx* ctx, uint32_t op,
                                                   uint8_t level, const pol_cfg_value* keys,
                                                   uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_prefix_list_name(void* host, t_pol_ctx* ctx, uint32_t op,
                                                    uint8_t level, const pol_cfg_value* keys,
                                                    uint32_t num, const pol_cfg_tag_value* values);

/* Members of a list, keys: name and range text ("5" or "3-9"). On purpose: only created and deleted
 * count. */
POL_API uint32_t pol_config_policy_site_list(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                             const pol_cfg_value* keys, uint32_t num,
                                             const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_vpn_list(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                            const pol_cfg_value* keys, uint32_t num,
                                            const pol_cfg_tag_value* values);

/* Keys: name, address, color, encapsulation; name, color; name, IPv4 prefix. On purpose: all but
 * deleted is an add. */
POL_API uint32_t pol_config_policy_tloc_list(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                             const pol_cfg_value* keys, uint32_t num,
                                             const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_color_list(void* host, t_pol_ctx* ctx, uint32_t op,
                                              uint8_t level, const pol_cfg_value* keys,
                                              uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_prefix_list(void* host, t_pol_ctx* ctx, uint32_t op,
                                               uint8_t level, const pol_cfg_value* keys,
                                               uint32_t num, const pol_cfg_tag_value* values);

/* Control (route) policies. Keys: name; name, sequence; name, sequence, match type. */
POL_API uint32_t pol_config_control_policy_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                uint8_t level, const pol_cfg_value* keys,
                                                uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_control_policy_seq_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                    uint8_t level, const pol_cfg_value* keys,
                                                    uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_control_policy_match_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                      uint8_t level, const pol_cfg_value* keys,
                                                      uint32_t num,
                                                      const pol_cfg_tag_value* values);

/* Membership policies. Keys: name; name, sequence. */
POL_API uint32_t pol_config_membership_policy_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                   uint8_t level, const pol_cfg_value* keys,
                                                   uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_membership_policy_seq_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                       uint8_t level, const pol_cfg_value* keys,
                                                       uint32_t num,
                                                       const pol_cfg_tag_value* values);

/* Objects that data policies name; the key is the name. Created or deleted, or changed with at
 * least one leaf. */
POL_API uint32_t pol_config_policy_sla_class_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                  uint8_t level, const pol_cfg_value* keys,
                                                  uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_policy_app_id_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                               uint8_t level, const pol_cfg_value* keys,
                                               uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_fwd_pfx_list_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                              uint8_t level, const pol_cfg_value* keys,
                                              uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_fwd_pfx6_list_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                               uint8_t level, const pol_cfg_value* keys,
                                               uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_fwd_policer_read(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                             const pol_cfg_value* keys, uint32_t num,
                                             const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_app_list_read(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level,
                                          const pol_cfg_value* keys, uint32_t num,
                                          const pol_cfg_tag_value* values);

/* Their members, keys: object, member. Whatever became of a member, its object changed. The level
 * of an application or family does not matter. */
POL_API uint32_t pol_config_fwd_pfx_list_ip_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                 uint8_t level, const pol_cfg_value* keys,
                                                 uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_fwd_pfx6_list_ip_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                  uint8_t level, const pol_cfg_value* keys,
                                                  uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_app_list_app_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                              uint8_t level, const pol_cfg_value* keys,
                                              uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_app_list_app_family_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                     uint8_t level, const pol_cfg_value* keys,
                                                     uint32_t num, const pol_cfg_tag_value* values);

/* Cflowd templates, at any level. On purpose a deleted one notifies nobody; what changes in a
 * collector of a template that is not there ends the process. */
POL_API uint32_t pol_config_cflowd_template_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                 uint8_t level, const pol_cfg_value* keys,
                                                 uint32_t num, const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_cflowd_collector_read(void* host, t_pol_ctx* ctx, uint32_t op,
                                                  uint8_t level, const pol_cfg_value* keys,
                                                  uint32_t num, const pol_cfg_tag_value* values);

/* Data and app-route policies. On purpose these take their arguments in an order of their own, the
 * kind of policy first: POL_KIND_DATA or POL_KIND_PERF_ROUTE, another ends the process. Keys: name;
 * name, VPN list; name, VPN list, sequence. A deleted policy notifies nobody. SLA settings in a
 * data policy end the process. */
POL_API uint32_t pol_config_fwd_read(uint32_t type, void* host, t_pol_ctx* ctx, uint32_t op,
                                     uint8_t level, const pol_cfg_value* keys, uint16_t num,
                                     const pol_cfg_tag_value* values);
POL_API uint32_t pol_config_fwd_vpn_list_read(uint32_t type, void* host, t_pol_ctx* ctx,
                                              uint32_t op, uint8_t level, const pol_cfg_value* keys,
                                              uint16_t num, const pol_cfg_tag_value* values);

/* A sequence has one VPN, TLOC and TLOC list; those given for its service take their places. Parts
 * of a TLOC or service that a report leaves out stay as they are; a TLOC goes with its address.
 * What makes its encapsulation binding lasts over reports until it is told as gone. */
POL_API uint32_t pol_config_fwd_seq_read(uint32_t type, void* host, t_pol_ctx* ctx, uint32_t op,
                                         uint8_t level, const pol_cfg_value* keys, uint16_t num,
                                         const pol_cfg_tag_value* values);

/* To be called when TLOC lists were changed: pol_tloc_list_update_fwd_pol_label. */
POL_API void pol_config_update_tloc_list(void* arg, t_pol_ctx* ctx);

/* The filter bit of a YANG enumeration value: 1 << value; on purpose 0 for 0. 32 and more aborts.
 */
POL_API uint32_t pol_yang_enum_to_filter_mask(uint32_t enum_val);

#endif
