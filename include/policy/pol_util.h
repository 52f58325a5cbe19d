/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_util.h - the words for the library's numbers.
 *
 * Constant strings. A number without a word gives "unknown", but "UNKNOWN" for prefix operators and
 * directions.
 */
#ifndef POLICY_POL_UTIL_H
#define POLICY_POL_UTIL_H

#include "policy/pol_types.h"

POL_API const char* pol_util_type_str(uint32_t kind);
POL_API const char* pol_util_action_str(uint32_t action);
POL_API const char* pol_util_dir_str(uint32_t direction);
POL_API const char* pol_util_match_type_str(uint32_t match_type);
POL_API const char* pol_util_list_type_str(uint32_t list_type);
POL_API const char* pol_util_pfx_op_str(uint32_t op);

/* `index` counts the names from "default" (0) to "cs7" (20); it is not the code point of RFC 2474.
 */
POL_API const char* pol_util_dscp_str(uint32_t index);

/* 1 "udp", 2 "tcp", 3 "icmp": not the protocol numbers of RFC 790. */
POL_API const char* pol_util_proto_str(uint32_t proto);

/* Write the names of the sequence's clauses, each followed by a blank, cut to `size`, and return
 * `buffer`. No clause gives ""; clauses of which none has a name leave the buffer as it was. */
POL_API char* pol_util_match_flags_str(const t_pol_entry* entry, char* buffer, size_t size);
POL_API char* pol_util_set_flags_str(const t_pol_entry* entry, char* buffer, size_t size);

#endif
