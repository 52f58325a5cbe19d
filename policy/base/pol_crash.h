// SPDX-License-Identifier: Apache-2.0
//
// pol_crash.h - ends the process on a broken invariant. Both strengths live in every build type.
#pragma once

#include <cassert>

#ifdef NDEBUG
#error "assertions are part of the product: build without NDEBUG"
#endif

namespace pol {

// The deliberate crash: a write to address 1, and exit(0) should that be survived.
[[noreturn]] void crash();

}  // namespace pol
