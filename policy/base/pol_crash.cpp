// SPDX-License-Identifier: Apache-2.0
#include "base/pol_crash.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace pol {

// Kept away from the sanitizers: the fault is wanted, and comes as the same signal in every build.
__attribute__((no_sanitize("address", "undefined", "thread"))) void crash(const char* broken,
                                                                          Caller from) {
  static constexpr char kLine[] = "%s[%d]: [POL] Broken invariant, ending the process: %s\n";
  syslog(LOG_LOCAL7 | LOG_ERR, kLine, from.function, from.line, broken);
  fprintf(stderr, kLine, from.function, from.line, broken);
  volatile uintptr_t address = 1;  // volatile: compilers know better than to write there
  *reinterpret_cast<volatile char*>(address) = 0;
  exit(0);
}

}  // namespace pol
