// SPDX-License-Identifier: Apache-2.0
//
// pol_crash.h - ends the process on a broken invariant. Both strengths live in every build type.
#pragma once

#include <cassert>

#include "base/pol_log.h"

#ifdef NDEBUG
#error "assertions are part of the product: build without NDEBUG"
#endif

namespace pol {

// The deliberate crash: a line to the system log (local7.err) and to stderr that names the function
// and what was broken, then a write to address 1, and exit(0) should that be survived.
[[noreturn]] void crash(const char* broken, Caller from = Caller::here());

}  // namespace pol
