// SPDX-License-Identifier: Apache-2.0
//
// pol_log.h - trace lines to the system log, at local7.debug.
//
// A macro, because __func__ and __LINE__ of the caller are the line's prefix; so never inside a
// lambda. Arguments are evaluated only when the line is wanted.
#pragma once

#include "policy/pol_context.h"

namespace pol {

// The host sets the level while the worker reads it.
inline int32_t debug_level() { return __atomic_load_n(&g_pol_dbg_level, __ATOMIC_RELAXED); }

[[gnu::format(printf, 1, 2)]] void log_line(const char* format, ...);

}  // namespace pol

// Whatever the debug level is.
#define POL_LOG_ALWAYS(format, ...) \
  ::pol::log_line("%s[%d]: [POL] " format, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Without the library's mark, as the text policy file's own lines are.
#define POL_LOG_PLAIN(format, ...) \
  ::pol::log_line("%s[%d]: " format, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define POL_LOG_AT(level, format, ...)                                                      \
  do {                                                                                      \
    if (::pol::debug_level() >= (level)) POL_LOG_ALWAYS(format __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)

#define POL_LOG(format, ...) POL_LOG_AT(1, format __VA_OPT__(, ) __VA_ARGS__)
