/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/tloc_types.h - transport locators (TLOCs), as records.
 *
 * A TLOC names one attachment of a device to a transport: the device's address, the color of the
 * transport and the tunnel encapsulation.
 */
#ifndef KEL_TLOC_TYPES_H
#define KEL_TLOC_TYPES_H

#include "kel/ipaddr_types.h"

/* Tunnel encapsulations. */
#define KEL_ENCAP_GRE 1u
#define KEL_ENCAP_IPSEC 2u

typedef struct t_tloc_id {
  uint32_t family; /* KEL_AF_INET or KEL_AF_INET6 */
  union {
    uint32_t v4;    /* host byte order */
    uint8_t v6[16]; /* network order */
  } addr;
  uint8_t color;
  uint8_t encap;
} t_tloc_id;

#endif
