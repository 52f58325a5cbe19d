// SPDX-License-Identifier: Apache-2.0
#include "kel/ipaddr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "kel/string.h"

bool ipprefix_is_contained(const t_ipprefix* inner, const t_ipprefix* outer) {
  if (inner->addr.family != outer->addr.family || inner->len < outer->len) return false;
  if (outer->addr.family == KEL_AF_INET) {
    if (outer->len == 0) return true;
    unsigned shift = outer->len < 32 ? 32u - outer->len : 0;
    return ((inner->addr.addr.v4 ^ outer->addr.addr.v4) >> shift) == 0;
  }
  if (outer->addr.family != KEL_AF_INET6) return false;
  unsigned bits = outer->len < 128 ? outer->len : 128;
  unsigned whole = bits / 8;
  const uint8_t* a = inner->addr.addr.v6;
  const uint8_t* b = outer->addr.addr.v6;
  if (memcmp(a, b, whole) != 0) return false;
  return bits % 8 == 0 || ((a[whole] ^ b[whole]) >> (8 - bits % 8)) == 0;
}

char* ipaddr_print(const t_ipaddr* addr, char* buffer, size_t size) {
  char text[INET6_ADDRSTRLEN] = "unknown";
  if (addr->family == KEL_AF_INET) {
    in_addr v4 = {htonl(addr->addr.v4)};
    inet_ntop(AF_INET, &v4, text, sizeof text);
  } else if (addr->family == KEL_AF_INET6) {
    inet_ntop(AF_INET6, addr->addr.v6, text, sizeof text);
  }
  snprintf(buffer, size, "%s", text);
  return buffer;
}

#ifndef KEL_LIBC_HAS_STRLCPY
size_t strlcpy(char* dst, const char* src, size_t size) {
  size_t length = strlen(src);
  if (size > 0) {
    size_t kept = length < size ? length : size - 1;
    memcpy(dst, src, kept);
    dst[kept] = '\0';
  }
  return length;
}
#endif
