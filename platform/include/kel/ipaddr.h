/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/ipaddr.h - what the system's common library does with IP addresses and prefixes.
 */
#ifndef KEL_IPADDR_H
#define KEL_IPADDR_H

#include <stdbool.h>
#include <stddef.h>

#include "kel/ipaddr_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Whether `inner` lies in `outer`: same family, at least as long, and equal over the outer's
 * length. Host bits beyond a prefix's length are ignored; a length beyond the family's width counts
 * as the width when bits are compared. Families other than the two hold nothing. */
bool ipprefix_is_contained(const t_ipprefix* inner, const t_ipprefix* outer);

/* Writes the address in text form (RFC 5952 for IPv6) and returns `buffer`; another family gives
 * "unknown". `size` of INET6_ADDRSTRLEN (46) suffices; less truncates. */
char* ipaddr_print(const t_ipaddr* addr, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif
#endif
