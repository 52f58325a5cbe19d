// SPDX-License-Identifier: Apache-2.0
//
// rig.h - a policy in the process's one context, with a user to evaluate it.
//
// Policies are made once a workload and stay until the program ends: a benchmark's function runs
// many times.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "policy/policy.h"

namespace bench {

// Made on first use.
t_pol_ctx* context();

// Processor time: what else runs on the machine is not the library's cost.
double seconds(const std::function<void()>& work);

struct Rig {
  explicit Rig(const std::string& name);

  // Ends the changes to the policy as a host does, so that users are told of them.
  void tell() const;
  // Sequence `number`: matches routes, accepts; clauses are the caller's to add.
  t_pol_entry* add_sequence(uint32_t number);

  t_pol_block* policy;
  t_pol_user* user;
};

// A query for routes that carry `attr`, which outlives it.
t_pol_route_query query_for(const t_pol_route_attr* attr);

// One question of a workload.
struct Route {
  t_ipprefix prefix;
  uint32_t tag;
  uint32_t preference;
};

// What the routes of a workload without attributes share.
t_pol_route_attr attributes();

}  // namespace bench
