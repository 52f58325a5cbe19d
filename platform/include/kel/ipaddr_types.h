/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/ipaddr_types.h - IP addresses and prefixes of the system's common library, as records.
 *
 * Shapes  family: KEL_AF_INET or KEL_AF_INET6 (the values of AF_INET and AF_INET6 on Linux), host
 *         order. v4: host byte order. v6: 16 bytes in network order (RFC 4291).
 */
#ifndef KEL_IPADDR_TYPES_H
#define KEL_IPADDR_TYPES_H

#include <stdint.h>

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

#endif
