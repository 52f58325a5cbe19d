// SPDX-License-Identifier: Apache-2.0
//
// seams.h - what tests put between the library and the system: a log that can be read, memory that
// runs out.
#pragma once

#include <string>

namespace seams {

// What was logged since the last call; each line has its priority in front. Of the main thread only,
// unless all are wanted: the worker writes whenever it gets to run.
std::string take_log();
void log_of_all_threads(bool all);

// That this thread holds, where a program counts them. Nothing may be logged meanwhile: a log may wait.
inline thread_local int spinlocks_held = 0;

// While alive, the n-th allocation (from 1) of this thread fails; `hit` tells whether it came to
// it.
class Fail {
 public:
  explicit Fail(int nth);
  ~Fail();
  bool hit() const;
  Fail(const Fail&) = delete;
  Fail& operator=(const Fail&) = delete;
};

}  // namespace seams
