// SPDX-License-Identifier: Apache-2.0
#include "base/pol_log.h"

#include <syslog.h>

#include <cstdarg>

namespace pol {

void log_line(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(LOG_LOCAL7 | LOG_DEBUG, format, args);
  va_end(args);
}

}  // namespace pol
