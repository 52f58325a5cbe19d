/* SPDX-License-Identifier: Apache-2.0
 *
 * kel/string.h - bounded string copy of the system's common library.
 */
#ifndef KEL_STRING_H
#define KEL_STRING_H

#include <stddef.h>
#include <string.h>

#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 38))
#define KEL_LIBC_HAS_STRLCPY 1
#endif

#ifndef KEL_LIBC_HAS_STRLCPY
#ifdef __cplusplus
extern "C" {
#endif
/* Copies at most size-1 bytes and terminates (size > 0); returns strlen(src), so a result of `size`
 * or more tells of truncation. REQUIRES: `src` is NUL-terminated. */
size_t strlcpy(char* dst, const char* src, size_t size);
#ifdef __cplusplus
}
#endif
#endif
#endif
