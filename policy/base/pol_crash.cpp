// SPDX-License-Identifier: Apache-2.0
#include "base/pol_crash.h"

#include <cstdint>
#include <cstdlib>

namespace pol {

// Kept away from the sanitizers: the fault is wanted, and it must come as the signal that hosts
// know.
__attribute__((no_sanitize("address", "undefined", "thread"))) void crash() {
  volatile uintptr_t address = 1;  // volatile: compilers know better than to write there
  *reinterpret_cast<volatile char*>(address) = 0;
  exit(0);
}

}  // namespace pol
