// SPDX-License-Identifier: Apache-2.0
//
// pol_thread_wait.h - waiting between two attempts at the agent.
#pragma once

struct t_pol_yarrow_thread;

extern "C" {

// Waits; false as soon as the thread is told to stop. Null for a wait that nothing ends.
bool pol_thread_wait(t_pol_yarrow_thread* thread, unsigned seconds);
}

namespace pol {

inline constexpr unsigned kRetrySeconds = 5;

}  // namespace pol
