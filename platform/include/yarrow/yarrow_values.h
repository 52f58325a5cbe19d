/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_values.h - typed values of the management agent, as records.
 */
#ifndef YARROW_VALUES_H
#define YARROW_VALUES_H

#include <stdint.h>

/* Value-type codes. */
typedef enum t_yarrow_value_type {
  C_NOEXISTS = 1,    /* the leaf was deleted or is absent */
  C_XMLTAG = 2,      /* a leaf without a value (YANG's empty): it exists */
  C_BUF = 5,         /* val.buf, NUL-terminated; size without the NUL */
  C_INT8 = 6,        /* val.i8 */
  C_INT16 = 7,       /* val.i16 */
  C_INT32 = 8,       /* val.i32 */
  C_INT64 = 9,       /* val.i64 */
  C_UINT8 = 10,      /* val.u8 */
  C_UINT16 = 11,     /* val.u16 */
  C_UINT32 = 12,     /* val.u32 */
  C_UINT64 = 13,     /* val.u64 */
  C_IPV4 = 15,       /* val.ip, network byte order */
  C_IPV6 = 16,       /* val.ip6, 16 bytes as on the wire */
  C_BOOL = 17,       /* val.boolean, 0 or 1 */
  C_ENUM_VALUE = 28, /* val.enumvalue, the number that the schema gives the word */
  C_LIST = 31,       /* val.list: a leaf-list */
  C_XMLBEGIN = 32,   /* a container opens; no payload */
  C_XMLEND = 33,     /* that container closes; no payload */
  C_IPV4PREFIX = 40, /* val.ipv4prefix */
  C_IPV6PREFIX = 41  /* val.ipv6prefix */
} t_yarrow_value_type;

/* One typed value. Pointers in a value that the client hands out belong to the record it came with.
 */
typedef struct t_yarrow_value {
  uint32_t type; /* a t_yarrow_value_type */
  union {
    struct {
      uint32_t size;
      uint8_t* ptr;
    } buf;
    struct {
      uint32_t size; /* values, not bytes */
      struct t_yarrow_value* ptr;
    } list;
    struct {
      uint32_t ip; /* network byte order, host bits zero */
      uint8_t len; /* bits, 0 to 32 */
    } ipv4prefix;
    struct {
      uint8_t ip6[16];
      uint8_t len; /* bits, 0 to 128 */
    } ipv6prefix;
    uint32_t ip;
    uint8_t ip6[16];
    uint32_t enumvalue;
    uint8_t boolean;
    int8_t i8;
    int16_t i16;
    int32_t i32;
    int64_t i64;
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
    uint64_t u64;
  } val;
} t_yarrow_value;

/* A value with the node it belongs to. */
typedef struct t_yarrow_tag_value {
  uint32_t tag; /* the node's tag in the schema */
  uint32_t ns;  /* the tag of its module's namespace */
  t_yarrow_value v;
} t_yarrow_tag_value;

#endif
