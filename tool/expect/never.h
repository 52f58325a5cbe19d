/* SPDX-License-Identifier: Apache-2.0
 *
 * never.h - statements about all routes: what a policy must never do, whatever the route.
 */
#ifndef TOOL_EXPECT_NEVER_H
#define TOOL_EXPECT_NEVER_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "test_file.h"
#include "tool/proof/policy_model.h"
#include "tool/proof/route_set.h"

namespace polctl {

/* A route for which a policy does what it must not do, or may do it. */
struct CounterExample {
  std::string route; /* a line as RouteReader takes it; "": none is known */
  std::string what;  /* what becomes of it and which of its members matter, or what is not known */
};

/* Of the policies that the process's context holds when it is made. */
class NeverProver {
 public:
  explicit NeverProver(const Bounds& bounds) : bounds_(bounds) { model_.read(); }

  /* None: the statement holds for every route there can be. Every route is asked of the library first.
   * Throws InputError, which begins with `where`, for conditions that make no sense or contradict each
   * other. REQUIRES: the policy exists. */
  std::optional<CounterExample> disprove(const TestCase& test, const std::string& where) const;

 private:
  Bounds bounds_;
  Model model_;
};

/* "accept by sequence 10 where tag=666", and as JSON. */
std::string never_text(const Never& never);
std::string never_json(const Never& never);

}  // namespace polctl

#endif
