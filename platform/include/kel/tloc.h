/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/tloc.h - the words for transport locators (TLOCs) and their attributes.
 */
#ifndef KEL_TLOC_H
#define KEL_TLOC_H

#include <stddef.h>

#include "kel/tloc_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* "10.0.0.1 : mpls : ipsec" and "10.0.0.1:3:2" (address, color and encapsulation numbers). Both
 * return `buffer`, cut to `size`. */
char* tloc_id_print(const t_tloc_id* tloc, char* buffer, size_t size);
char* tloc_id_print_short(const t_tloc_id* tloc, char* buffer, size_t size);

/* Constant names; "unknown" for a value without one. */
const char* kel_util_tloc_color_name(uint32_t color);
const char* kel_util_svc_name(uint32_t service);

/* How a set TLOC treats the route's own (ultimate) TLOC: 0 "none", 1 "strict", 2 "primary", 3
 * "backup", 4 "ecmp". Above 1, the own TLOC is kept beside the resolved ones. */
const char* kel_attr_ultimate_tloc_str(uint8_t mode);

#ifdef __cplusplus
}
#endif
#endif
