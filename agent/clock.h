// SPDX-License-Identifier: Apache-2.0
//
// The clock of time limits, which nobody turns.
#ifndef AGENT_CLOCK_H
#define AGENT_CLOCK_H

#include <cstdint>

namespace agent {

// Milliseconds of the steady clock.
int64_t now_ms();

}  // namespace agent
#endif
