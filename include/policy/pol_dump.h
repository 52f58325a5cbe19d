/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_dump.h - everything the library holds, printed to a command-line session.
 *
 * The dumps that take (cli, ignored, argc, argv) are command callbacks of the management agent:
 * they read g_pol_ctx_p, print nothing without it, and return 0.
 */
#ifndef POLICY_POL_DUMP_H
#define POLICY_POL_DUMP_H

#include "policy/pol_types.h"

/* With an argv[1] that holds "--detail", also writes the allocator's report to
 * /var/log/pol_meminfo.txt. */
POL_API int pol_dump_memory_info(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);

POL_API void pol_dump_entry(t_pol_entry* entry, t_cli_user_ctx* cli);
POL_API void pol_dump_block(t_pol_block* block, t_cli_user_ctx* cli);
POL_API void pol_dump_user(t_cli_user_ctx* cli, t_pol_user* user);

POL_API int pol_dump_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv,
                              uint32_t kind);
POL_API int pol_dump_route_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API int pol_dump_membership_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc,
                                         char** argv);
POL_API int pol_dump_cflowd_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);

/* Data and app-route policies, with what each sequence resolved to and when the texts of the
 * objects that it names were last fetched. */
POL_API int pol_dump_fwd_policies(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_fwd_block(t_pol_block* block, t_cli_user_ctx* cli);
POL_API void pol_dump_fwd_vpn_entry(t_pol_fwd_vpn_entry* vpn, t_cli_user_ctx* cli);
POL_API void pol_dump_fwd_entry(t_pol_entry* entry, t_cli_user_ctx* cli);

POL_API int pol_dump_users(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API int pol_dump_users_change_list(t_cli_user_ctx* cli, uint32_t ignored, int argc,
                                       char** argv);
POL_API int pol_dump_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);

POL_API void pol_dump_pfx_list(t_pfx_list* list, t_cli_user_ctx* cli);
POL_API int pol_dump_pfx_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_tloc_list(t_tloc_list* list, t_cli_user_ctx* cli);
POL_API int pol_dump_tloc_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_color_list(t_color_list* list, t_cli_user_ctx* cli);
POL_API int pol_dump_color_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_site_list(t_site_list* list, t_cli_user_ctx* cli);
POL_API int pol_dump_site_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_vpn_list(t_vpn_list* list, t_cli_user_ctx* cli);
POL_API int pol_dump_vpn_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_app_list(t_app_list* node, t_cli_user_ctx* cli);
POL_API int pol_dump_app_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_fwd_pfx_list(t_fwd_pfx_list* node, t_cli_user_ctx* cli);
POL_API int pol_dump_fwd_pfx_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_fwd_pfx6_list(t_fwd_pfx_list* node, t_cli_user_ctx* cli);
POL_API int pol_dump_fwd_pfx6_list_all(t_cli_user_ctx* cli, uint32_t ignored, int argc,
                                       char** argv);
POL_API void pol_dump_fwd_sla_class(t_fwd_sla_class* node, t_cli_user_ctx* cli);
POL_API int pol_dump_fwd_sla_class_all(t_cli_user_ctx* cli, uint32_t ignored, int argc,
                                       char** argv);
POL_API void pol_dump_fwd_policer(t_fwd_policer* node, t_cli_user_ctx* cli);
POL_API int pol_dump_fwd_policer_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API void pol_dump_fwd_app_id(t_fwd_app_id* node, t_cli_user_ctx* cli);
POL_API int pol_dump_fwd_app_id_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
POL_API int pol_dump_xml_config_all(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);

#endif
