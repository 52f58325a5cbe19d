// SPDX-License-Identifier: Apache-2.0
//
// pol_log.h - trace lines to the system log, at local7.debug.
//
// Macros, because __func__ and __LINE__ of the caller are the line's prefix; so never inside a
// lambda. Arguments are evaluated only when the line is wanted. Every line is one call of syslog.
#pragma once

#include <syslog.h>

#include "policy/pol_context.h"

namespace pol {

// The host sets the level while the worker reads it.
inline int32_t debug_level() { return __atomic_load_n(&g_pol_dbg_level, __ATOMIC_RELAXED); }

// Who a line is from, where a helper logs for the function that called it: a last argument
// `Caller from = Caller::here()`.
struct Caller {
  const char* function;
  int line;

  static Caller here(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    return {function, line};
  }
};

}  // namespace pol

#define POL_LOG_LINE(format, ...) syslog(LOG_LOCAL7 | LOG_DEBUG, format __VA_OPT__(, ) __VA_ARGS__)

// Whatever the debug level is.
#define POL_LOG_ALWAYS(format, ...) \
  POL_LOG_LINE("%s[%d]: [POL] " format, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define POL_LOG_AT(level, format, ...)                                                      \
  do {                                                                                      \
    if (::pol::debug_level() >= (level)) POL_LOG_ALWAYS(format __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)

#define POL_LOG(format, ...) POL_LOG_AT(1, format __VA_OPT__(, ) __VA_ARGS__)

// For the caller of a helper.
#define POL_LOG_FROM(from, format, ...)                                               \
  do {                                                                                \
    if (::pol::debug_level() >= 1) {                                                  \
      POL_LOG_LINE("%s[%d]: [POL] " format, (from).function,                          \
                   (from).line __VA_OPT__(, ) __VA_ARGS__);                           \
    }                                                                                 \
  } while (0)

// The same without the library's mark, as the text policy file's own lines are.
#define POL_LOG_PLAIN_FROM(from, format, ...)                                          \
  do {                                                                                 \
    if (::pol::debug_level() >= 1) {                                                   \
      POL_LOG_LINE("%s[%d]: " format, (from).function, (from).line __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                  \
  } while (0)
