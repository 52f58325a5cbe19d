// SPDX-License-Identifier: Apache-2.0
//
// seams.h - what tests put between the library and the system: a log that can be read, memory that
// runs out.
#pragma once

#include <string>
#include <vector>

namespace seams {

// Lines logged since the last call, with their priority in front.
std::vector<std::string> take_log();

// While alive, the n-th allocation (from 1) of this thread and all later ones fail.
class FailFrom {
 public:
  explicit FailFrom(int nth);
  ~FailFrom();
  FailFrom(const FailFrom&) = delete;
  FailFrom& operator=(const FailFrom&) = delete;
};

// While alive, only the n-th allocation fails; `hit` tells whether it came to it.
class FailOnce {
 public:
  explicit FailOnce(int nth);
  ~FailOnce();
  bool hit() const;
  FailOnce(const FailOnce&) = delete;
  FailOnce& operator=(const FailOnce&) = delete;
};

}  // namespace seams
