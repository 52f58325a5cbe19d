// SPDX-License-Identifier: Apache-2.0
//
// pol_name.h - names in fields of a fixed size.
#pragma once

#include <cstddef>
#include <cstring>

namespace pol {

// Copies a name that may lack its NUL into a field, cut to fit and terminated; the rest is zeroed.
template <size_t N>
void copy_name(char (&field)[N], const char* name) {
  size_t length = strnlen(name, N - 1);
  memcpy(field, name, length);
  memset(field + length, 0, N - length);
}

}  // namespace pol
