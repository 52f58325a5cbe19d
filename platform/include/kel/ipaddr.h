/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/ipaddr.h - IP addresses and prefixes of the system's common library.
 *
 * Shapes  family: KEL_AF_INET or KEL_AF_INET6 (the values of AF_INET and AF_INET6 on Linux), host
 *         order. v4: host byte order. v6: 16 bytes in network order (RFC 4291).
 */
#ifndef KEL_IPADDR_H
#define KEL_IPADDR_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEL_AF_INET 2u
#define KEL_AF_INET6 10u

typedef struct t_ipaddr {
  uint32_t family;
  union {
    uint32_t v4;
    uint8_t v6[16];
  } addr;
} t_ipaddr;

typedef struct t_ipprefix {
  t_ipaddr addr;
  uint8_t len; /* bits */
} t_ipprefix;

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
