/* SPDX-License-Identifier: Apache-2.0
 *
 * condition.h - what `--where` says of routes: tag=5, prefix=10.0.0.0/8-24, site-list=hubs, not tag=5.
 */
#ifndef TOOL_PROOF_CONDITION_H
#define TOOL_PROOF_CONDITION_H

#include <string>
#include <string_view>
#include <vector>

#include "policy_model.h"
#include "route_space.h"

namespace polctl {

struct Condition {
  Atom atom;
  bool negated = false;
};

/* Throws LineFaultError: an unknown field, a value out of range, a list that the model does not have. */
Condition read_condition(std::string_view text, const Model& model);

/* Several of them, which all must hold. They are added before the space is cut; the set is of then. */
class Conditions {
 public:
  /* Throws InputError, which begins with `where`. */
  Conditions(const std::vector<std::string>& texts, const Model& model, const std::string& where,
             RouteSpace* space);
  /* Throws InputError when no route of the universe can be so. */
  RouteSet set(const RouteSet& universe) const;

 private:
  struct Made {
    size_t atom;
    bool negated;
  };
  RouteSpace* space_;
  std::string where_;
  std::vector<std::string> texts_;
  std::vector<Made> made_;
};

/* Reads `--limit`: "30s", "500MB"; each replaces a bound. Throws InputError. */
Bounds read_bounds(const std::vector<std::string>& limits);

}  // namespace polctl

#endif
