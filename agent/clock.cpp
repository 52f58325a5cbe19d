// SPDX-License-Identifier: Apache-2.0
//
// In a file of its own, so that a test of the time limits puts another clock in its place at the
// link.
#include "agent/clock.h"

#include <chrono>

int64_t agent::now_ms() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  auto since = std::chrono::steady_clock::now().time_since_epoch();
  return duration_cast<milliseconds>(since).count();
}
